// A path measured beside its floor: the least that any program has to do for the same result.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

/// True once a path has taken longer than its budget allows.
inline bool over_budget = false;

/// Ends the program when what is measured went wrong.
inline void require(bool held, int line = __builtin_LINE(), const char* file = __builtin_FILE()) {
  if (held) return;
  fprintf(stderr, "%s:%d: what is measured went wrong\n", file, line);
  exit(1);
}

/// Makes the compiler believe that `value`, and all memory, is read and changed here.
template <typename T>
void touch(const T& value) {
  asm volatile("" : : "r"(&value) : "memory");
}

/// Prints the ratio of two figures, and whether it is within its budget.
inline void report(const char* title, double path, double floor, double budget) {
  const double ratio = path / floor;
  printf("%-42s %5.2f x its floor  (budget %.2f)%s\n", title, ratio, budget,
         ratio > budget ? "  OVER" : "");
  fflush(stdout);
  over_budget = over_budget || ratio > budget;
}

/// Seconds that one of `steps` calls of `step` takes.
template <typename Step>
double seconds_of(Step& step, int steps) {
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < steps; ++i) step();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count() / steps;
}

/// How many calls of `step` take two milliseconds.
template <typename Step>
int steps_of(Step& step) {
  int steps = 1;
  while (seconds_of(step, steps) * steps < 0.002) steps *= 2;
  return steps;
}

/// Measures `path` and `floor`, which are called without arguments, and reports the ratio of
/// their times. They take turns and the least disturbed turn of each counts, so that a busy
/// machine troubles both alike.
template <typename Path, typename Floor>
void compare(const char* title, double budget, Path path, Floor floor) {
  const int path_steps = steps_of(path);
  const int floor_steps = steps_of(floor);
  double path_time = seconds_of(path, path_steps);
  double floor_time = seconds_of(floor, floor_steps);
  const int turns = path_time < 0.01 ? 500 : 40;
  for (int turn = 0; turn < turns; ++turn) {
    path_time = std::min(path_time, seconds_of(path, path_steps));
    floor_time = std::min(floor_time, seconds_of(floor, floor_steps));
  }
  report(title, path_time, floor_time, budget);
}

// A path measured beside its floor: the least that any program has to do for the same result.
#pragma once

#include <sched.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

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

/// How many calls of `step` take two milliseconds. Each number is tried twice, since the first
/// calls may take long.
template <typename Step>
int steps_of(Step& step) {
  int steps = 1;
  while (std::min(seconds_of(step, steps), seconds_of(step, steps)) * steps < 0.002) steps *= 2;
  return steps;
}

/// What a tenth of the times stays below: the busy turns do not count, nor do a few lucky ones.
inline double quiet_time(std::vector<double> times) {
  const auto tenth = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 10);
  std::nth_element(times.begin(), tenth, times.end());
  return *tenth;
}

/// Moves the calling thread to the next processor that it may run on. It need not stay there.
inline void move_to_next_processor() {
  cpu_set_t allowed, wanted{};
  require(sched_getaffinity(0, sizeof allowed, &allowed) == 0);
  int next = sched_getcpu();
  do {
    next = (next + 1) % CPU_SETSIZE;
  } while (!CPU_ISSET(next, &allowed));
  CPU_SET(next, &wanted);
  require(sched_setaffinity(0, sizeof wanted, &wanted) == 0);
  require(sched_setaffinity(0, sizeof allowed, &allowed) == 0);
}

/// Measures `path` and `floor`, which are called without arguments, and reports the ratio of
/// their times. They take turns, so that a busy machine troubles both alike. A core that other
/// machines use, too, troubles the path more, for seconds: what is over its budget is measured up
/// to three times more, each time later and from another processor if it can be.
template <typename Path, typename Floor>
void compare(const char* title, double budget, Path path, Floor floor) {
  const int path_steps = steps_of(path);
  const int floor_steps = steps_of(floor);
  const int turns = seconds_of(path, 1) < 0.01 ? 500 : 50;
  for (int attempt = 1;; ++attempt) {
    std::vector<double> path_times, floor_times;
    for (int turn = 0; turn < turns; ++turn) {
      path_times.push_back(seconds_of(path, path_steps));
      floor_times.push_back(seconds_of(floor, floor_steps));
    }
    const double path_time = quiet_time(path_times), floor_time = quiet_time(floor_times);
    const double ratio = path_time / floor_time;
    if (ratio <= budget || attempt == 4) return report(title, path_time, floor_time, budget);
    printf("%-42s %5.2f x its floor, measured again\n", title, ratio);
    std::this_thread::sleep_for(std::chrono::seconds(5));
    move_to_next_processor();
  }
}

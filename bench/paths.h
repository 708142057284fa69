// Hot paths measured beside their floors: the least that any program has to do for the
// same result. Prints every path's ratio to its floor.
//
// The repetitions of all paths and floors are mixed, and the least disturbed one
// of each counts, so that a busy machine troubles both sides alike.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <span>
#include <string>
#include <vector>

struct Path {
  const char* title;
  const char* name;
  void (*path)(benchmark::State&);
  void (*floor)(benchmark::State&);
  double budget;
};

inline std::string floor_of(const char* name) { return std::string(name) + "_floor"; }

// Keeps the shortest time of every benchmark.
class ShortestTimes : public benchmark::BenchmarkReporter {
 public:
  explicit ShortestTimes(std::span<const Path> paths) : paths_(paths) {}
  bool ReportContext(const Context& /*context*/) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      double time = run.GetAdjustedRealTime();
      auto [known, added] = shortest_.try_emplace(run.run_name.function_name, time);
      known->second = std::min(known->second, time);
    }
  }

  void Finalize() override {
    for (const Path& path : paths_) {
      double ratio = shortest_[path.name] / shortest_[floor_of(path.name)];
      printf("%-40s %5.2f x its floor  (budget %.2f)%s\n", path.title, ratio, path.budget,
             ratio > path.budget ? "  OVER" : "");
    }
  }

 private:
  std::span<const Path> paths_;
  std::map<std::string, double> shortest_;
};

/// Measures `paths` with the command line's further options; the result is main's.
inline int measure(int argc, char** argv, std::span<const Path> paths) {
  std::vector<std::string> words = {argv[0], "--benchmark_enable_random_interleaving=true",
                                    "--benchmark_repetitions=100", "--benchmark_min_time=0.005"};
  words.insert(words.end(), argv + 1, argv + argc);
  std::vector<char*> flags;
  for (std::string& word : words) flags.push_back(word.data());
  int count = static_cast<int>(flags.size());
  benchmark::Initialize(&count, flags.data());
  for (const Path& path : paths) {
    benchmark::RegisterBenchmark(path.name, path.path);
    benchmark::RegisterBenchmark(floor_of(path.name).c_str(), path.floor);
  }
  ShortestTimes report(paths);
  benchmark::RunSpecifiedBenchmarks(&report);
  return 0;
}

// Work done by several threads or short of descriptors, and what it writes to standard error.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <barrier>
#include <list>
#include <string>
#include <thread>

#include "liblocal/messages/debug.h"
#include "liblocal/messages/progname.h"

/// Runs `work(i)` for i in 0..count-1, each in a thread of its own, from the same moment on.
inline void in_threads(int count, auto work) {
  std::barrier start(count);
  std::list<std::jthread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&start, &work, i] {
      start.arrive_and_wait();
      work(i);
    });
  }
}

/// While it lives, no descriptor from `most` on is opened.
struct DescriptorLimit {
  explicit DescriptorLimit(rlim_t most) {
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit limit = {most, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before); }
  rlimit before{};
};

/// What `work` writes to standard error in a program named kivtrap, with `Debug` at `level`.
inline std::string printed(int level, auto work) {
  vx_set_progname("kivtrap");
  const int before = Debug.exchange(level);
  testing::internal::CaptureStderr();
  work();
  Debug = before;
  return testing::internal::GetCapturedStderr();
}

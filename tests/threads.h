// Work done by several threads at once.
#pragma once

#include <barrier>
#include <list>
#include <thread>

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

// Work done by several threads at once.
#pragma once

#include <barrier>
#include <thread>
#include <vector>

/// Runs `work(i)` for i in 0..count-1, each in a thread of its own, from the same moment on.
template <typename Work>
void in_threads(int count, Work work) {
  std::barrier start(count);
  std::vector<std::jthread> threads;
  threads.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&start, &work, i] {
      start.arrive_and_wait();
      work(i);
    });
  }
}

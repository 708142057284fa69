#include "liblocal/threads/xmalloc.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

#include "liblocal/threads/liblvarp.h"
#include "tests/failing_malloc.h"

namespace {

// What a pause does instead of passing, while a test wants to see it.
std::function<void(int64_t milliseconds)> on_pause;

}  // namespace

// Takes the place of the platform's for the whole test program.
extern "C" int nanosleep(const timespec* pause, timespec* left) {
  if (on_pause) {
    on_pause(pause->tv_sec * 1000 + pause->tv_nsec / 1000000);
    return 0;
  }
  errno = clock_nanosleep(CLOCK_MONOTONIC, 0, pause, left);
  return errno == 0 ? 0 : -1;
}

namespace {

// The pauses of `allocate` when memory comes back after the third.
std::vector<int64_t> pauses_of(const std::function<void*()>& allocate) {
  std::vector<int64_t> pauses;
  auto shortage = std::make_unique<FailingMalloc>(0);
  on_pause = [&](int64_t milliseconds) {
    pauses.push_back(milliseconds);
    if (pauses.size() == 3) shortage.reset();
  };
  void* memory = allocate();
  on_pause = nullptr;
  EXPECT_NE(memory, nullptr);
  free(memory);
  return pauses;
}

TEST(Xmalloc, WaitsForMemoryAndGoesOn) {
  const std::vector<int64_t> allocators(3, 5000), blocks(3, 2000);
  EXPECT_EQ(pauses_of([] { return xmalloc(10); }), allocators);
  EXPECT_EQ(pauses_of([] { return xcalloc(2, 10); }), allocators);
  EXPECT_EQ(pauses_of([] { return xstrdup("text"); }), allocators);
  EXPECT_EQ(pauses_of([] { return liblocal_t_init(); }), blocks);
}

}  // namespace

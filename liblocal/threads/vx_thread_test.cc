#include "liblocal/threads/vx_thread.h"

#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>

#include "liblocal/threads/vx_reference.h"
#include "tests/threads.h"

namespace {

TEST(VxThread, RunsAndIsJoined) {
  int value = 0;
  vx_thread* thread = vx_thread_new(
      [](void* argument) -> void* {
        *static_cast<int*>(argument) = vx_thread_join(vx_thread_self(), nullptr);
        return vx_thread_self();
      },
      &value);
  EXPECT_EQ(vx_thread_join(thread, nullptr), 31);  // not started
  EXPECT_EQ(vx_thread_start(thread), 0);
  EXPECT_EQ(vx_thread_start(thread), 31);
  void* result = nullptr;
  EXPECT_EQ(vx_thread_join(thread, &result), 0);
  EXPECT_EQ(value, 18);       // it cannot wait for itself
  EXPECT_EQ(result, thread);  // its own identity
  EXPECT_EQ(vx_thread_join(thread, nullptr), 31);
  EXPECT_EQ(vx_thread_destroy(thread), 0);
}

TEST(VxThread, RunsOnWithoutItsCreator) {
  static std::atomic<bool> ended;
  vx_thread* thread = vx_thread_new([](void*) -> void* { return ended = true, nullptr; }, nullptr);
  vx_thread_start(thread);
  EXPECT_EQ(vx_thread_destroy(thread), 0);
  while (!ended) EXPECT_EQ(vx_thread_yield(), 0);
}

TEST(VxThread, IdentitiesDifferAndGoWithTheirThreads) {
  vx_thread* own = vx_thread_self();
  EXPECT_EQ(vx_thread_self(), own);
  EXPECT_EQ(vx_thread_equal(own, own), 1);
  EXPECT_EQ(vx_thread_id(own) >> 32, static_cast<uint64_t>(getpid()));
  EXPECT_EQ(static_cast<int32_t>(vx_thread_id(own)),
            reinterpret_cast<vx_object_header*>(own)->slot);
  for (int round = 0; round < 50; ++round) {
    in_threads(8, [own](int) {
      vx_thread* self = vx_thread_self();
      EXPECT_EQ(vx_thread_equal(self, own), 0);
      EXPECT_NE(vx_thread_id(self), vx_thread_id(own));
      EXPECT_LT(static_cast<uint32_t>(vx_thread_id(self)), 64u);  // ended threads left their slots
    });
  }
}

TEST(VxThread, SleepsUntilASignal) {
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(vx_thread_sleep(20), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
  struct sigaction quiet = {};
  quiet.sa_handler = [](int) {};
  sigaction(SIGALRM, &quiet, nullptr);
  itimerval soon = {{}, {0, 20000}};
  setitimer(ITIMER_REAL, &soon, nullptr);
  EXPECT_EQ(vx_thread_sleep(60000), 30);
}

}  // namespace

#include "liblocal/threads/vx_atexit.h"

#include <gtest/gtest.h>

#include <csignal>

#include "liblocal/threads/vx_error.h"
#include "tests/failing_malloc.h"
#include "tests/threads.h"

namespace {

template <char kLetter>
void say() {
  fputc(kLetter, stderr);
}

void say_and_add() {
  say<'b'>();
  vx_atexit(say<'n'>);
}

void fill() {
  vx_atexit(say<'a'>);
  vx_atexit(say_and_add);
  vx_atexit(say<'x'>);
  vx_atexit(say<'c'>);
  EXPECT_EQ(vx_unatexit(say<'x'>), 0);
}

TEST(VxAtexit, RunsNewestFirst) {
  auto exits = testing::ExitedWithCode(3);
  EXPECT_EXIT((fill(), exit(3)), exits, "^cbna$");
  EXPECT_EXIT((fill(), vx_atexit_disable(), exit(3)), exits, "^$");
  EXPECT_EXIT((fill(), vx_atexit_disable(), vx_atexit_enable(), exit(3)), exits, "^cbna$");
}

TEST(VxAtexit, ServesSeveralThreads) {
  in_threads(8, [](int) {
    for (int i = 0; i < 200; ++i) {
      EXPECT_EQ(vx_atexit(say<'y'>), 0);
      EXPECT_EQ(vx_atexit(say<'z'>), 0);
      EXPECT_EQ(vx_unatexit(say<'z'>), 0);
    }
  });
  int left = 0;
  while (vx_unatexit(say<'y'>) == 0) ++left;
  EXPECT_EQ(left, 8 * 200);
  EXPECT_EQ(vx_unatexit(say<'z'>), 49);
}

void first_use_without_memory() {
  vx_error_set_last(0, 1);
  FailingMalloc nothing(0);
  vx_atexit(say<'?'>);
}

TEST(VxAtexit, WithoutMemory) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // in a process that has used nothing yet
  EXPECT_EXIT(first_use_without_memory(), testing::KilledBySignal(SIGTERM),
              "^Failed to create internal atexit list: Cannot allocate memory\n$");
  EXPECT_EQ(vx_unatexit(say<'?'>), 49);
  FailingMalloc nothing(0);
  EXPECT_EQ(vx_atexit(say<'?'>), 53);
}

}  // namespace

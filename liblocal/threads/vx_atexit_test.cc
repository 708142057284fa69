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

TEST(VxAtexit, ReportsWhatItCannotDo) {
  in_threads(4, [](int) { EXPECT_EQ(vx_atexit(say<'y'>), 0); });
  for (int wanted : {0, 0, 0, 0, 49}) EXPECT_EQ(vx_unatexit(say<'y'>), wanted);
  EXPECT_EQ(vx_atexit(nullptr), 2);
  EXPECT_EQ(vx_unatexit(nullptr), 2);
  FailingMalloc nothing(0);
  EXPECT_EQ(vx_atexit(say<'?'>), 53);
}

// In a process that has used nothing yet.
void first_use(int granted, bool goes_on) {
  if (goes_on) std::signal(SIGTERM, SIG_IGN);
  vx_error_set_last(0, 1);
  FailingMalloc one(granted, 1);
  exit(vx_atexit(say<'?'>));
}

TEST(VxAtexit, NeedsItsListAndTheMutexOfTheName) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string list = "^Failed to create internal atexit list: Cannot allocate memory\n$";
  const std::string mutex = "^Failed to create progname mutex: Cannot allocate memory\n";
  EXPECT_EXIT(first_use(0, false), testing::KilledBySignal(SIGTERM), list);
  EXPECT_EXIT(first_use(0, true), testing::ExitedWithCode(2), list);
  EXPECT_EXIT(first_use(1, true), testing::ExitedWithCode(0), list) << "the switch is off";
  EXPECT_EXIT(first_use(3, true), testing::ExitedWithCode(0), mutex + "\\?$");
}

}  // namespace

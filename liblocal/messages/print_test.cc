#include "liblocal/messages/print.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "liblocal/text/utf8_marks.h"
#include "liblocal/text/vxprint.h"
#include "tests/failing_malloc.h"
#include "tests/printed.h"

// Formats here differ on purpose from what the compiler knows.
#pragma GCC diagnostic ignored "-Wformat"

namespace {

std::string on_stdout(auto print) {
  testing::internal::CaptureStdout();
  print();
  return testing::internal::GetCapturedStdout();
}

TEST(Print, PrefixAndStream) {
  // A program's name may be any file name; messages show 63 bytes.
  for (const std::string& name : {std::string("50%s%n"), std::string(70, '%')}) {
    const std::string wanted = name.substr(0, 63) + ": x 5 b a\n";
    auto print = [&name](auto printer) {
      vx_set_progname(name.c_str());
      printer("x %d %3$s %2$s\n", 5, "a", "b");
    };
    EXPECT_EQ(printed(0, [&] { print(printerr); }), wanted);
    EXPECT_EQ(on_stdout([&] { print(printinfo); }), wanted);
  }
}

TEST(Print, NothingWithoutMemory) {
  for (int granted : {0, 1}) {
    auto print = [granted](auto printer) {
      FailingMalloc failing(granted);
      printer("%d", 5);
    };
    EXPECT_EQ(printed(0, [&] { print(printerr); }), "") << granted;
    EXPECT_EQ(on_stdout([&] { print(printinfo); }), "") << granted;
  }
}

TEST(Vxprintf, ConvertsUnlessMarked) {
  auto print = [] { EXPECT_EQ(vxprintf("%-4s|", "é日"), 4); };
  EXPECT_EQ(on_stdout(print), "\xE9? |") << "the C locale is Latin-1";
}

TEST(Vxprintf, WithoutMemory) {
  auto print = [](int granted, int result) {
    FailingMalloc failing(granted);
    EXPECT_EQ(vxprintf("%s", "é"), result);
  };
  EXPECT_EQ(on_stdout([&] { print(0, 0); }), "");
  EXPECT_EQ(on_stdout([&] { print(1, 2); }), "é") << "unconverted";
}

TEST(Vxprintf, MarkedStreamIsThePlatforms) {
  utf8_fd(STDOUT_FILENO);
  const std::string text = on_stdout([] { EXPECT_EQ(vxprintf("%5s|%lld", "é", 1LL << 40), 19); });
  user_fd(STDOUT_FILENO);
  EXPECT_EQ(text, "   é|1099511627776");
}

}  // namespace

#include "liblocal/messages/print.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "liblocal/messages/progname.h"
#include "liblocal/text/utf8_marks.h"
#include "liblocal/text/vxprint.h"
#include "tests/failing_malloc.h"
#include "tests/locales.h"
#include "tests/printed.h"
#include "tests/stand_ins.h"

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

TEST(Print, FailuresGoToTheAccrualToo) {
  in_locale("", [] {
    static std::string taken;
    print_set_accrual_hook([](const char* text) {
      taken += text;
      return 0;
    });
    for (const char* text : {"notice, a", "b notice: ", "warning, c", "d warning: ", "noticed"}) {
      EXPECT_EQ(printed(0, [text] { printerr("%s", text); }), std::string("kivtrap: ") + text);
    }
    EXPECT_EQ(on_stdout([] { printinfo("notified"); }), "kivtrap: notified");
    EXPECT_EQ(taken, "kivtrap: noticed");
    print_set_accrual_hook(nullptr);
    EXPECT_EQ(printed(0, [] { printerr("%d", 5); }), "kivtrap: 5");
  });
}

TEST(Print, PrefixOfAMoment) {
  in_locale("", [] {
    const std::string id = "(pid " + std::to_string(getpid()) + "): ";
    char prefix[kMessagePrefixSize], in_handler[kMessagePrefixSize];
    EXPECT_EQ(print_prefix(prefix), id);
    EXPECT_EQ(print_prefix_in_handler(in_handler), id);
    vx_set_progname(std::string(70, 'N').c_str());
    setenv("TZ", "WIN5:30SUM,M3.5.0,M10.5.0", 1);
    tzset();
    stand_ins::now = 1795036118;
    print_timestamps(1);
    const std::string name = std::string(63, 'n') + ": ";
    EXPECT_EQ(print_prefix_in_handler(in_handler), "11/18/26 15:38:38 " + name);
    for (int64_t now : {951827696L, 1782862199L, 1782862200L, 1798702200L, 4102463999L, 1L}) {
      stand_ins::now = now;
      print_prefix(prefix);  // the clocks may have changed
      EXPECT_STREQ(print_prefix_in_handler(in_handler), prefix) << now;
    }
    print_timestamps(0);
    EXPECT_EQ(print_prefix(prefix), name);
    EXPECT_EQ(print_prefix_in_handler(in_handler), name);
  });
}

TEST(Print, ANameIsSeenWhole) {
  std::atomic<bool> done = false;
  std::thread renamer([&done] {
    for (int i = 0; !done; ++i) vx_set_progname(std::string(40, i % 2 != 0 ? 'a' : 'b').c_str());
  });
  for (int i = 0; i < 10000; ++i) {
    char name[64] = "";
    if (_vx_peek_progname(name, sizeof name) && strlen(name) == 40) {
      EXPECT_EQ(name, std::string(40, *name));
    }
  }
  done = true;
  renamer.join();
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

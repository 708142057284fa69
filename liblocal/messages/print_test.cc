#include "liblocal/messages/print.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

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
  // A program's name may be any file name; messages show 63 bytes. Without memory for the
  // format or the text there is no message.
  for (const std::string& name : {std::string("50%s%n"), std::string(70, '%')}) {
    for (int granted : {0, 1, 100}) {
      const std::string wanted = granted < 100 ? "" : name.substr(0, 63) + ": x 5 b a\n";
      auto print = [&](auto printer) {
        vx_set_progname(name.c_str());
        FailingMalloc failing(granted);
        printer("x %d %3$s %2$s\n", 5, "a", "b");
      };
      EXPECT_EQ(printed(0, [&] { print(printerr); }), wanted) << granted;
      EXPECT_EQ(on_stdout([&] { print(printinfo); }), wanted) << granted;
    }
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
    print_set_accrual_hook(nullptr);
    EXPECT_EQ(printed(0, [] { printerr("%d", 5); }), "kivtrap: 5");
    EXPECT_EQ(taken, "kivtrap: noticed");
  });
}

TEST(Print, PrefixOfAMoment) {
  in_locale("", [] {
    char prefix[kMessagePrefixSize], in_handler[kMessagePrefixSize];
    auto expect = [&](const std::string& wanted) {
      EXPECT_EQ(print_prefix_in_handler(in_handler), wanted);
      EXPECT_EQ(print_prefix(prefix), wanted);
    };
    expect("(pid " + std::to_string(getpid()) + "): ");
    vx_set_progname(std::string(70, 'N').c_str());
    setenv("TZ", "WIN5:30SUM,M3.5.0,M10.5.0", 1);
    tzset();
    stand_ins::now = 1795036118;
    print_timestamps(1);
    const std::string name = std::string(63, 'n') + ": ";
    expect("11/18/26 15:38:38 " + name);
    for (int64_t now : {951827696L, 1782862199L, 1782862200L, 1798702200L, 4102463999L, 1L}) {
      stand_ins::now = now;
      print_prefix(prefix);  // the clocks may have changed
      expect(prefix);
    }
    print_timestamps(0);
    expect(name);
  });
}

TEST(Vxprintf, ConvertsUnlessMarked) {
  // The text that comes out in the C locale, which is Latin-1: whole, without memory for the
  // formatted text, without memory for the converted one, and on a marked stream.
  const std::tuple<int, bool, int, const char*> cases[] = {{100, false, 6, "\xE9?  |5"},
                                                           {0, false, 0, ""},
                                                           {1, false, 9, "é日  |5"},
                                                           {0, true, 7, "é日|5"}};
  for (const auto& [granted, marked, result, wanted] : cases) {
    if (marked) utf8_fd(STDOUT_FILENO);
    EXPECT_EQ(on_stdout([granted = granted, result = result] {
                FailingMalloc failing(granted);
                EXPECT_EQ(vxprintf("%-5s|%ld", "é日", 5L), result);
              }),
              wanted);
    user_fd(STDOUT_FILENO);
  }
}

}  // namespace

// Messages and debug lines: what stands before a text, and where it goes.
#include "liblocal/messages/print.h"

#include <unistd.h>

#include "liblocal/messages/log_time.h"
#include "liblocal/text/utf8_marks.h"
#include "liblocal/text/vxprint.h"
#include "tests/failing_malloc.h"
#include "tests/lab.h"
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
  // The text that comes out in the C locale, which is Latin-1, and the result: whole, without
  // memory for the formatted text or the converted one, and on a marked stream.
  const std::tuple<int, bool, std::string> cases[] = {
      {100, false, "\xE9?  |5 6"}, {0, false, " 0"}, {1, false, "é日  |5 9"}, {0, true, "é日|5 7"}};
  for (const auto& [granted, marked, wanted] : cases) {
    if (marked) utf8_fd(STDOUT_FILENO);
    int result = -1;
    const std::string text = on_stdout([&result, granted = granted] {
      FailingMalloc failing(granted);
      result = vxprintf("%-5s|%ld", "é日", 5L);
    });
    EXPECT_EQ(text + " " + std::to_string(result), wanted);
    user_fd(STDOUT_FILENO);
  }
}

[[gnu::format(printf, 2, 3)]] void diagnose(int level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vdprintf(level, format, arguments);
  va_end(arguments);
}

TEST(DebugLine, LevelAndPrefix) {
  auto all = [] {
    for (int level : {0, 2, 3}) {
      dfprintf(level, "a%d\n", level);
      diagnose(level, "b%d\n", level);
      verbprint(level, "c%d\n", level);
    }
  };
  EXPECT_EQ(printed(-1, [all] { all(), debugprintf("%d\n", 1); }), "kivtrap: 1\n");
  EXPECT_EQ(printed(2, all),
            "kivtrap: a0\nkivtrap: Diagnostic: b0\nc0\nkivtrap: a2\nkivtrap: b2\nc2\n");
  auto levels = [] {
    for (int level : {0, 1, 2, 3, 4}) verbprint(level, "%d", level);
  };
  const std::pair<const char*, const char*> strict[] = {
      {"2", "02"}, {"-1", "0123"}, {"4", "0"}, {"x", "0"}};
  for (auto [variable, wanted] : strict) {
    setenv("KIV_STRICT_LEVEL", variable, 1);
    EXPECT_EQ(printed(3, levels), wanted) << variable;
  }
  unsetenv("KIV_STRICT_LEVEL");
}

TEST(DebugFile, TakesTheLines) {
  const std::string path = testing::TempDir() + "/debug_file";
  remove(path.c_str());
  auto open = [&path] { dfopen(path.c_str()); };
  for (const char* nothing : {"", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(printed(2, [=] { dfopen(nothing); }), "kivtrap: dfopen: filename is null ... \n");
    EXPECT_EQ(printed(1, [=] { dfopen(nothing); }), "");
  }
  EXPECT_EQ(debug_descriptor(), STDERR_FILENO);
  EXPECT_EQ(printed(2, open) + printed(1, open), "");
  fprintf(dfopen_filehndl(), "unbuffered\n");
  debugprintf("into it\n");
  EXPECT_EQ(lab::read_file(path), "kivtrap: dfopen: Opened file " + path +
                                      " for dprintf writing.\nunbuffered\nkivtrap: into it\n");
  EXPECT_EQ(debug_descriptor(), fileno(dfopen_filehndl()));
  auto open_nowhere = [] { dfopen("/no/where"); };
  EXPECT_EQ(printed(1, open_nowhere), "");
  EXPECT_EQ(printed(2, open_nowhere),
            "kivtrap: dfopen: Unable to open file /no/where for writing.\n");
  EXPECT_EQ(dfopen_filehndl(), nullptr);

  auto close_twice = [] {
    close(debug_descriptor());
    dfclose();
  };
  for (const char* told : {"", "kivtrap: dfclose: File stream close failed.\n"}) {
    open();
    EXPECT_EQ(printed(*told == '\0' ? 1 : 2, close_twice), told);
  }
  EXPECT_TRUE(printed(2, dfclose).empty() && dfopen_filehndl() == nullptr);
}

TEST(LogTime, Texts) {
  setenv("TZ", "UTC0", 1);
  tzset();
  const std::pair<time_t, const char*> cases[] = {
      {1795036118, "11/18/26 21:08:38"}, {2147483647, "forever"}, {INT64_MAX, "no-time"}};
  for (auto [time, wanted] : cases) {
    char buffer[kLogTimeSize];
    EXPECT_STREQ(log_entry_time(time, buffer), wanted);
    EXPECT_STREQ(log_entry_time(time, nullptr), wanted);
  }
}

}  // namespace

#include "liblocal/messages/debug.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include "liblocal/messages/log_time.h"
#include "liblocal/messages/print.h"
#include "tests/lab.h"
#include "tests/printed.h"

namespace {

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
  EXPECT_EQ(printed(-1, all), "");
  EXPECT_EQ(printed(-1, [] { debugprintf("%d\n", 1); }), "kivtrap: 1\n");
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
  auto open_nowhere = [] { dfopen("/nowhere/at/all"); };
  EXPECT_EQ(printed(1, open_nowhere), "");
  EXPECT_EQ(printed(2, open_nowhere),
            "kivtrap: dfopen: Unable to open file /nowhere/at/all for writing.\n");
  EXPECT_EQ(dfopen_filehndl(), nullptr);

  auto close_twice = [] {
    close(debug_descriptor());
    dfclose();
  };
  for (const char* told : {"", "kivtrap: dfclose: File stream close failed.\n"}) {
    open();
    EXPECT_EQ(printed(*told == '\0' ? 1 : 2, close_twice), told);
  }
  EXPECT_EQ(printed(2, dfclose), "");
  EXPECT_EQ(dfopen_filehndl(), nullptr);
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
  print_timestamps(1);
  EXPECT_THAT(printed(0, [] { debugprintf("x\n"); }),
              testing::MatchesRegex("../../.. ..:..:.. kivtrap: x\n"));
  print_timestamps(0);
}

}  // namespace

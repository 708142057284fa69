#include "liblocal/debug.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdlib>

#include "liblocal/log_time.h"
#include "liblocal/print.h"
#include "liblocal/vxinit.h"
#include "tests/lab.h"

namespace {

std::string printed(int level, auto print) {
  vx_set_progname("kivtrap");
  Debug = level;
  testing::internal::CaptureStderr();
  print();
  Debug = 0;
  return testing::internal::GetCapturedStderr();
}

// Calls one of the printers that take an argument list.
[[gnu::format(printf, 3, 4)]] void call(void (*print)(int, const char*, va_list), int level,
                                        const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  print(level, format, arguments);
  va_end(arguments);
}

TEST(DebugLine, LevelAndPrefix) {
  EXPECT_EQ(printed(-1, [] { debugprintf("%d\n", 1); }), "kivtrap: 1\n");
  auto all = [] {
    for (int level : {0, 2, 3}) {
      dfprintf(level, "a%d\n", level);
      call(vdfprintf, level, "b%d\n", level);
      call(vxdebug::vdprintf, level, "c%d\n", level);
      verbprint(level, "d%d\n", level);
    }
  };
  EXPECT_EQ(printed(-1, all), "");
  EXPECT_EQ(printed(2, all),
            "kivtrap: a0\nkivtrap: b0\nkivtrap: Diagnostic: c0\nd0\n"
            "kivtrap: a2\nkivtrap: b2\nkivtrap: c2\nd2\n");
}

TEST(DebugLine, StrictLevel) {
  auto levels = [] {
    for (int level : {0, 1, 2, 3, 4}) verbprint(level, "%d", level);
  };
  const std::pair<const char*, const char*> cases[] = {
      {"2", "02"}, {"-1", "0123"}, {"4", "0"}, {"x", "0"}};
  for (auto [strict, wanted] : cases) {
    setenv("KIV_STRICT_LEVEL", strict, 1);
    EXPECT_EQ(printed(3, levels), wanted) << strict;
  }
  unsetenv("KIV_STRICT_LEVEL");
  EXPECT_EQ(printed(3, levels), "0123");
}

TEST(DebugFile, TakesTheLines) {
  const std::string path = testing::TempDir() + "/debug_file";
  remove(path.c_str());
  EXPECT_EQ(printed(2, [] { dfopen(""); }), "kivtrap: dfopen: filename is null ... \n");
  EXPECT_EQ(printed(2,
                    [&] {
                      dfopen(path.c_str());
                      debugprintf("into it\n");
                    }),
            "");
  const std::string wanted =
      "kivtrap: dfopen: Opened file " + path + " for dprintf writing.\nkivtrap: into it\n";
  EXPECT_EQ(lab::read_file(path), wanted) << "unbuffered";
  EXPECT_EQ(debug_descriptor(), fileno(dfopen_filehndl()));
  EXPECT_EQ(printed(1, [&] { dfopen(path.c_str()); }), "");
  EXPECT_EQ(printed(1, [] { dfopen(nullptr); }), "");
  EXPECT_EQ(lab::read_file(path), wanted) << "appended to";
  EXPECT_EQ(printed(2, [] { dfopen("/nowhere/at/all"); }),
            "kivtrap: dfopen: Unable to open file /nowhere/at/all for writing.\n");
  EXPECT_EQ(dfopen_filehndl(), nullptr);
  EXPECT_EQ(debug_descriptor(), 2);

  dfopen(path.c_str());
  auto failing_close = [] {
    close(debug_descriptor());
    dfclose();
  };
  EXPECT_EQ(printed(2, failing_close), "kivtrap: dfclose: File stream close failed.\n");
  EXPECT_EQ(dfopen_filehndl(), nullptr);
}

TEST(LogTime, Texts) {
  setenv("TZ", "UTC0", 1);
  tzset();
  const std::pair<time_t, const char*> cases[] = {{1795036118, "11/18/26 21:08:38"},
                                                  {0, "01/01/70 00:00:00"},
                                                  {2147483647, "forever"},
                                                  {2147483648, "01/19/38 03:14:08"},
                                                  {INT64_MAX, "no-time"}};
  for (auto [time, wanted] : cases) {
    char buffer[kLogTimeSize];
    EXPECT_STREQ(log_entry_time(time, buffer), wanted);
  }
  EXPECT_STREQ(log_entry_time(2147483647, nullptr), "forever");
  print_timestamps(1);
  EXPECT_THAT(printed(0, [] { debugprintf("x\n"); }),
              testing::MatchesRegex("../../.. ..:..:.. kivtrap: x\n"));
  print_timestamps(0);
}

}  // namespace

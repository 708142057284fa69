// Locales, message catalogs, messages and debug lines.
#include <nl_types.h>
#include <unistd.h>

#include <cerrno>

#include "liblocal/messages/answers.h"
#include "liblocal/messages/catgets.h"
#include "liblocal/messages/i18n_3.h"
#include "liblocal/messages/locales.h"
#include "liblocal/messages/log_time.h"
#include "liblocal/messages/print.h"
#include "tests/fakes.h"
#include "tests/locales.h"
#include "tests/machine.h"
#include "tests/work.h"

// Some formats here are of the runtime's formatter alone.
#pragma GCC diagnostic ignored "-Wformat"

namespace {

TEST(Locales, ByTheNamesOfThisSystem) {
  const std::string longest(kLocaleNameSize - 1, 'x');
  const std::pair<std::string, std::string> names[] = {{"japan", "ja_JP.EUC"},
                                                       {"xx.eucJP", "ja_JP.EUC"},
                                                       {"de_DE.ISO8859-1", "de_DE.8859-1"},
                                                       {longest, longest},
                                                       {"C", ""},
                                                       {longest + "x", ""}};
  for (const auto& [name, becomes] : names) {
    char buffer[kLocaleNameSize] = "";
    EXPECT_EQ(normalise_locale(name.c_str(), buffer), !becomes.empty()) << name;
    EXPECT_EQ(buffer, becomes);
  }
}

TEST(Locales, ComeFromTheEnvironment) {
  in_locale("", [] {
    setenv("LC_ALL", "C.UTF-8", 1);
    EXPECT_EQ(printed(1, [] { EXPECT_STREQ(init_locales("kiv", ""), "C.UTF-8"); }),
              "kivtrap: Locale\"C.UTF-8\" found.\nkivtrap: Lang Subdir is\"unknown\".\n");
    setenv("LC_ALL", "de_DE.nowhere", 1);
    EXPECT_EQ(init_locales("kiv", ""), nullptr);
    EXPECT_STREQ(get_user_locale(), "C");
  });
}

TEST(Catalogs, ReplaceTheDefaultTexts) {
  in_locale("", [] {
    EXPECT_EQ(vxcatopen("kiv", 0), -1) << "no language has a directory";
    const TemporaryDirectory place;
    const std::string path = place.path() + "/texts";
    compile_catalog(path, "$set 17\n16 j\n17 J\n$set 41\n22 benutze\n264 vier\n");
    Catd = reinterpret_cast<int64_t>(catopen(path.c_str(), 0));
    const char* text = "usage";
    EXPECT_EQ(vxcatgets(Catd, 41, 22, text), text) << "during the initialisation";
    EXPECT_STREQ(vxcatgets(Catd, 41, 264, text), "vier");
    EXPECT_EQ(is_yes("J"), 1);
    _vx_set_initialised();
    errno = EBUSY;
    EXPECT_STREQ(vxcatgets(Catd, 41, 22, text), "benutze");
    EXPECT_EQ(vxcatgets(Catd, 41, 23, text), text);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(is_yes("ja"), 1);
    EXPECT_EQ(is_yes("y"), 0);
    EXPECT_EQ(is_yes(nullptr), 0);
    EXPECT_EQ(vxcatclose(Catd), 0);
  });
}

TEST(Answers, BeginWithTheirLetter) {
  for (const char* answer : {"no", "N"}) EXPECT_EQ(is_no(answer), 1);
  for (const char* answer : {"quit", "Q"}) EXPECT_EQ(is_quit(answer), 1);
  for (const char* answer : {"rename", "R"}) EXPECT_EQ(is_rename(answer), 1);
}

TEST(I18n3, JoinsAndRotates) {
  const char* first = i18n_3("a", nullptr, "c");
  for (int i = 1; i < kJoinedTexts; ++i) EXPECT_NE(i18n_3("", "x", ""), first);
  EXPECT_STREQ(first, "ac");
  const std::string half(4000, 'x');
  EXPECT_EQ(i18n_3(half.c_str(), half.c_str(), ""), first) << "its turn again";
  EXPECT_EQ(first, (half + half).substr(0, kJoinedSize - 1));
}

TEST(Print, PutsTheProgramsNameFirst) {
  for (const std::string& name : {std::string("50%s%n"), std::string(70, '%')}) {
    vx_set_progname(name.c_str());
    testing::internal::CaptureStdout();
    printinfo("x %d %3$s %2$s\n", 5, "a", "b");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), name.substr(0, 63) + ": x 5 b a\n");
  }
}

void expect_prefix(const std::string& wanted) {
  char prefix[kMessagePrefixSize];
  EXPECT_EQ(print_prefix_in_handler(prefix), wanted);
  EXPECT_EQ(print_prefix(prefix), wanted);
}

TEST(Print, StampsTheTime) {
  in_locale("", [] {
    expect_prefix("(pid " + std::to_string(getpid()) + "): ");
    vx_set_progname(std::string(70, 'N').c_str());
    const std::string name = std::string(63, 'n') + ": ";
    setenv("TZ", "WIN5:30SUM,M3.5.0,M10.5.0", 1);
    tzset();
    fakes::now = 1795036118;
    print_timestamps(1);
    expect_prefix("11/18/26 15:38:38 " + name);
    // A leap day, the turns of a month, a year and a century, the first second.
    for (int64_t now : {951827696L, 1782862199L, 1782862200L, 1798702200L, 4102463999L, 1L}) {
      fakes::now = now;
      char prefix[kMessagePrefixSize];
      expect_prefix(print_prefix(prefix));
    }
  });
}

TEST(LogTime, OfNoMoment) {
  EXPECT_STREQ(log_entry_time(INT32_MAX, nullptr), "forever");
  EXPECT_STREQ(log_entry_time(INT64_MAX, nullptr), "no-time");
}

[[gnu::format(printf, 2, 3)]] void diagnose(int level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vdprintf(level, format, arguments);
  va_end(arguments);
}

TEST(DebugLine, IsWrittenUpToTheLevel) {
  auto lines = [] {
    for (int level : {0, 2, 3}) {
      dfprintf(level, "a%d\n", level);
      diagnose(level, "b%d\n", level);
      verbprint(level, "c%d\n", level);
    }
  };
  EXPECT_EQ(printed(-1, lines), "");
  EXPECT_EQ(printed(2, lines),
            "kivtrap: a0\nkivtrap: Diagnostic: b0\nc0\nkivtrap: a2\nkivtrap: b2\nc2\n");
  setenv("KIV_STRICT_LEVEL", "2", 1);
  EXPECT_EQ(printed(3, [] { verbprint(1, "c1"); }), "");
  EXPECT_EQ(printed(3, [] { verbprint(2, "c2"); }), "c2");
  EXPECT_EQ(printed(3, [] { verbprint(0, "c0"); }), "c0");
  unsetenv("KIV_STRICT_LEVEL");
}

TEST(DebugFile, TakesTheLines) {
  const TemporaryDirectory place;
  const std::string path = place.path() + "/lines";
  EXPECT_EQ(printed(2, [&] { dfopen(path.c_str()); }), "");
  debugprintf("unbuffered\n");
  EXPECT_EQ(machine::read_file(path), "kivtrap: dfopen: Opened file " + path +
                                          " for dprintf writing.\nkivtrap: unbuffered\n");
  EXPECT_EQ(debug_descriptor(), fileno(dfopen_filehndl()));
  dfclose();
  EXPECT_EQ(dfopen_filehndl(), nullptr);
  EXPECT_EQ(debug_descriptor(), STDERR_FILENO);
}

TEST(DebugFile, Failures) {
  auto lines = [] {
    dfopen("");
    dfopen("/no/where");
    liblvars_set_debug(1);
    dfopen("/dev/null");
    close(debug_descriptor());
    liblvars_set_debug(2);
    dfclose();
    dfclose();
  };
  EXPECT_EQ(printed(2, lines),
            "kivtrap: dfopen: filename is null ... \n"
            "kivtrap: dfopen: Unable to open file /no/where for writing.\n"
            "kivtrap: dfclose: File stream close failed.\n");
}

}  // namespace

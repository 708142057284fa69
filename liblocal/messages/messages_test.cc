// Locales, message catalogs, messages, debug lines, and error records with their tables.
#include <nl_types.h>
#include <unistd.h>

#include <cerrno>

#include "liblocal/messages/answers.h"
#include "liblocal/messages/catgets.h"
#include "liblocal/messages/err_tables.h"
#include "liblocal/messages/errinfo.h"
#include "liblocal/messages/i18n_3.h"
#include "liblocal/messages/locales.h"
#include "liblocal/messages/log_time.h"
#include "liblocal/messages/message_ids.h"
#include "liblocal/messages/print.h"
#include "liblocal/text/codesets.h"
#include "tests/fakes.h"
#include "tests/locales.h"
#include "tests/work.h"

// Some formats here are of the runtime's formatter alone.
#pragma GCC diagnostic ignored "-Wformat"

using namespace fakes;

namespace {

using namespace std::string_literals;

TEST(Locales, ByTheNamesOfThisSystem) {
  const std::string longest(127, 'x');
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
    EXPECT_EQ(Needs_conversion, 0);
    setenv("LC_ALL", "de_DE.nowhere", 1);
    EXPECT_EQ(printed(0, [] { EXPECT_EQ(init_locales("kiv", ""), nullptr); }), "");
    EXPECT_STREQ(get_user_locale(), "C");
    EXPECT_EQ(get_lang_subdir(), nullptr);
  });
}

// From now on the catalog is the one with these messages.
void open_catalog(const std::string& messages) {
  const TemporaryDirectory place;
  const std::string path = place.path() + "/texts";
  machine::write_file(path + ".source", messages);
  EXPECT_EQ(system(("gencat " + path + " " + path + ".source").c_str()), 0);
  Catd = reinterpret_cast<int64_t>(catopen(path.c_str(), 0));
}

TEST(Catalogs, ReplaceTheDefaultTexts) {
  in_locale("", [] {
    EXPECT_EQ(vxcatopen("kiv", 0), -1);
    open_catalog("$set 41\n22 benutze\n264 vier\n");
    const char* text = "usage";
    EXPECT_EQ(vxcatgets(Catd, 41, 22, text), text);  // during the initialisation
    EXPECT_STREQ(vxcatgets(Catd, 41, 264, text), "vier");
    _vx_set_initialised();
    errno = EBUSY;
    EXPECT_STREQ(vxcatgets(Catd, 41, 22, text), "benutze");
    EXPECT_EQ(vxcatgets(Catd, 41, 23, text), text);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(vxcatclose(Catd), 0);
  });
}

TEST(MessageIds, HoldAFacilityAndANumber) { EXPECT_EQ(mc_message_id(41, 22), 0x8290016); }

TEST(Answers, BeginWithALetterOfTheCatalog) {
  in_locale("", [] {
    open_catalog("$set 17\n10 a\n11 b\n12 c\n13 d\n14 e\n15 f\n16 g\n17 h\n");
    const std::pair<int (*)(const char*), const char*> answers[] = {
        {is_no, "ab"}, {is_quit, "cd"}, {is_rename, "ef"}, {is_yes, "gh"}};
    for (const auto& [is_answer, letters] : answers) {
      EXPECT_EQ(is_answer(letters), 1);
      EXPECT_EQ(is_answer(letters + 1), 1);
      EXPECT_EQ(is_answer("Y"), 0);
      EXPECT_EQ(is_answer(nullptr), 0);
    }
  });
}

TEST(I18n3, JoinsAndRotates) {
  const char* first = i18n_3("a", nullptr, "c");
  for (int i = 1; i < 200; ++i) EXPECT_NE(i18n_3("", "x", ""), first);
  EXPECT_STREQ(first, "ac");
  const std::string half(4000, 'x');
  EXPECT_EQ(i18n_3(half.c_str(), half.c_str(), ""), first) << "its turn again";
  EXPECT_EQ(first, std::string(6143, 'x'));
}

TEST(Print, PutsTheProgramsNameFirst) {
  for (const std::string& name : {"50%s%n"s, std::string(70, '%')}) {
    vx_set_progname(name.c_str());
    vx_set_progname("");
    vx_set_progname(nullptr);
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
  EXPECT_STREQ(log_entry_time(0x7FFFFFFF, nullptr), "forever");
  EXPECT_STREQ(log_entry_time(INT64_MAX, nullptr), "no-time");
  in_locale("", [] {
    expect_prefix("(pid " + std::to_string(getpid()) + "): ");
    vx_set_progname(std::string(70, 'N').c_str());
    setenv("TZ", "WIN5:30SUM,M3.5.0,M10.5.0", 1);
    tzset();
    now = 1795036118;
    print_timestamps(1);
    expect_prefix("11/18/26 15:38:38 " + std::string(63, 'n') + ": ");
    // A leap day, the turns of a month, a year and a century, the first second.
    for (int64_t moment : {951827696L, 1782880199L, 1782880200L, 1798781400L, 4102464599L, 1L}) {
      now = moment;
      char prefix[kMessagePrefixSize];
      expect_prefix(print_prefix(prefix));
    }
  });
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
  auto verbose = [] {
    for (int level : {0, 1, 2}) verbprint(level, "c%d", level);
  };
  EXPECT_EQ(printed(3, verbose), "c0c2");
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
  dfopen("/no/where");  // closes the last one
  EXPECT_EQ(dfopen_filehndl(), nullptr);
  EXPECT_EQ(debug_descriptor(), STDERR_FILENO);
}

TEST(DebugFile, Failures) {
  auto lines = [] {
    dfclose();
    dfopen("");
    dfopen("/no/where");
    dfopen("/dev/null");
    close(debug_descriptor());
    dfclose();
  };
  EXPECT_EQ(printed(1, lines), "");
  EXPECT_EQ(printed(2, lines),
            "kivtrap: dfopen: filename is null ... \n"
            "kivtrap: dfopen: Unable to open file /no/where for writing.\n"
            "kivtrap: dfclose: File stream close failed.\n");
}

void expect_record(const vx_error_record* record, int32_t number, const std::string& text) {
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->number, number);
  EXPECT_EQ(record->text, text);
}

// What err_print writes of `record` behind the program's name.
std::string printed_record(int level, const vx_error_record& record) {
  return printed(level, [&] { err_print(&record); }).substr(strlen("kivtrap: "));
}

TEST(ErrSet, TakesSeverityAndTextFromTheTables) {
  expect_record(err_set(1, 0), 11000, "Success");
  expect_record(err_set(1, ENOMEM), 15012, "Cannot allocate memory");
  for (int error : {EINTR, ENETDOWN, ENETRESET, ECONNRESET, ETIMEDOUT}) {
    EXPECT_EQ(err_set(1, error)->number, 13000 + error);
  }
  expect_record(err_set(2, 123005), 23005, "Timed out");
  expect_record(err_set(2, -1), 19999, "Unknown error");
  expect_record(err_set(9, 3), 94003, "Invalid or NULL session channel");
  for (int type : {-1, 11}) err_settype(type, 1, "none", nullptr, nullptr);
  EXPECT_EQ(err_type_of(11), nullptr);
}

TEST(ErrTables, KnowTheSeverityOfEveryCode) {
  // Each digit is the severity of a code, 0 that of a code which the table lacks.
  const std::pair<int, std::string> tables[] = {{2, "15544344455545445555555555550"},
                                                {3, "1" + std::string(32, '5') + "0"},
                                                {4, "150"},
                                                {5, "150"},
                                                {6, "150"},
                                                {7, "150"},
                                                {8, "150"},
                                                {9, "14540"}};
  for (const auto& [type, severities] : tables) {
    std::string found;
    for (size_t code = 0; code < severities.size(); ++code) {
      found += std::to_string(err_set(type, static_cast<int32_t>(code))->number / 1000 % 10);
    }
    EXPECT_EQ(found, severities) << type;
  }
}

TEST(ErrTables, HaveTheTextsOfTheCatalog) {
  in_locale("", [] {
    std::string messages = "$set 17\n";  // each text is its number
    for (int number = 191; number < 279; ++number) {
      messages += std::to_string(number) + " " + std::to_string(number) + "\n";
    }
    open_catalog(messages + "279 %s, %s%s\n280 %s-%s: %s%s\n1015 1015\n1016 1016\n");
    EXPECT_EQ(printed_record(0, {12001, "a"}), "277, a") << "before the tables are made";
    for (int code = 0; code < 28; ++code) {
      const int number = (code == 3 || code == 4 ? 1012 : 224) + code;
      EXPECT_EQ(err_set(2, code)->text, std::to_string(number));
    }
    for (int code = 0; code <= 32; ++code) {
      EXPECT_EQ(err_set(3, code)->text, std::to_string(191 + code));
    }
    EXPECT_EQ(printed_record(0, {21000, "a"}), "RPC-276: a");
    EXPECT_EQ(printed_record(0, {23000, "a"}), "RPC-278: a");
  });
}

TEST(ErrTables, ReleaseTheirTextsAtTheEnd) {
  in_locale("", [] {
    err_set(3, 32);
    const long held = pieces_held();
    for (int i = 0; i < 2; ++i) {
      err_unsetall();
      EXPECT_EQ(held - pieces_held(), 28 + 33);
      expect_record(err_set(3, 32), 35032, "Resource database busy");
    }
  });
}

TEST(ErrPrint, AddsDetailsUnlessTheLevelIs0) {
  err_set(1, 0);  // makes the tables
  EXPECT_EQ(printed_record(0, {92001, "50%d"}), "Jobs warning: 50%d\n");
  EXPECT_EQ(printed_record(-1, {92001, "50%d"}), "Jobs warning: 50%d (severity 2, number 1)\n");
  EXPECT_EQ(printed_record(1, {102001, "worn"}), "warning, worn (type 10, severity 2, number 1)\n");
  EXPECT_EQ(printed_record(1, {0, "nothing"}), "error, nothing\n");
  EXPECT_EQ(printed_record(1, {-10001, "chain"}), "error, chain (number -10001)\n");
}

TEST(ErrSetstr, CutsItsText) {
  const std::string text(18432, 'x');
  EXPECT_EQ(err_setstr(3, 1, "%s", text.c_str())->text, text.substr(1));
  EXPECT_EQ(err_setstr(3, 1, nullptr), nullptr);
}

TEST(ErrCopies, OwnTheirTexts) {
  auto copy_and_free = [] {
    const vx_error_record given = {35012, "50% of %s"};
    vx_error_record copy;
    EXPECT_EQ(err_dup2(&given, &copy), 35012);
    expect_record(err_move_to_varp(&copy), 35012, given.text);
    EXPECT_EQ(err_move_to_varp(&copy), nullptr);
    expect_record(err_restore(err_save(&given)), 35012, given.text);
    EXPECT_EQ(err_dup(nullptr), nullptr);
    EXPECT_EQ(err_dup2(nullptr, &copy), 0);
  };
  EXPECT_EQ(pieces_left_by(copy_and_free), 0);
}

TEST(ErrSave, ShowsWhatItReplaces) {
  auto save = [] { err_save(err_set(1, 0)); };
  EXPECT_EQ(printed(1, save), "");
  EXPECT_EQ(printed(0, save), "");
  EXPECT_EQ(printed(1, save), "kivtrap: err_save: overwriting old tmperr <Success>\n");
}

TEST(ErrAccrue, ChainsMessages) {
  auto chain = [](int /*thread*/) {
    EXPECT_EQ(err_accrue("before it accrues"), 0);
    EXPECT_EQ(blow_err(0), nullptr);
    for (const char* text : {"low\n", "notice, a", "b warning: ", "noticed\n"}) {
      EXPECT_EQ(printed(0, [text] { printerr("%s", text); }), "kivtrap: "s + text);
    }
    for (int mode : {2, 1}) {
      expect_record(blow_err(mode), -10001, "kivtrap: noticed\n->(kivtrap: low\n)");
    }
    EXPECT_EQ(blow_err(1), nullptr);
    err_accrue("freed with the thread");
  };
  EXPECT_EQ(pieces_left_by([&] { in_threads(1, chain); }), 0);
  print_set_accrual_hook(nullptr);
}

TEST(ErrAccrue, DropsWhatDoesNotFit) {
  blow_err(1);
  err_accrue(std::string(18000, 'o').c_str());
  std::string over(18433 - 18000 - 9, 'n');
  auto accrue = [&over] { EXPECT_EQ(err_accrue(over.c_str()), 0); };
  EXPECT_EQ(printed(8, accrue), "");
  EXPECT_EQ(printed(9, accrue), "kivtrap: Dropping error string " + over + "\n");
  over.pop_back();
  accrue();
  EXPECT_EQ(strlen(blow_err(1)->text), 18000 + over.size() + strlen("->()"));
  const FailingMalloc none(0);
  EXPECT_EQ(printed(0, accrue), "Malloc failed.\n");
  EXPECT_EQ(printed(0, [] { printerr("lost"); }), "");
  EXPECT_EQ(err_setstr(3, 1, "lost"), nullptr);
}

}  // namespace

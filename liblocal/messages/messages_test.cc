// Messages, error records and debug lines: their texts, what stands before these, and where
// they go.
#include <nl_types.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include "liblocal/messages/answers.h"
#include "liblocal/messages/catgets.h"
#include "liblocal/messages/err_tables.h"
#include "liblocal/messages/errinfo.h"
#include "liblocal/messages/i18n_3.h"
#include "liblocal/messages/locales.h"
#include "liblocal/messages/log_time.h"
#include "liblocal/messages/message_ids.h"
#include "liblocal/messages/print.h"
#include "liblocal/text/utf8_marks.h"
#include "liblocal/text/vxprint.h"
#include "tests/fakes.h"
#include "tests/locales.h"
#include "tests/machine.h"
#include "tests/work.h"

// Formats here differ on purpose from what the compiler knows.
#pragma GCC diagnostic ignored "-Wformat"

static const char* language = nullptr;

// What the linker puts in the place of get_lang_subdir.
extern "C" const char* __wrap__Z15get_lang_subdirv() { return language; }

namespace {

TEST(Locales, Names) {
  // Each name and what becomes of it; "-": the buffer stays as it was.
  std::istringstream cases(
      "C -  en_US -  en_US.UTF-8 -  en_US.utf8 -  xx.eucJP ja_JP.EUC  zh_CN.EUC zh_CN.GB2312-80 "
      "ja_JP.PCK ja_JP.sjis  japan ja_JP.EUC  ja ja_JP.EUC  ja_JP ja_JP.EUC  japanese ja_JP.EUC "
      "fr fr_FR.8859-1  de de_DE.8859-1  chinese zh_CN.GB2312-80  zh zh_CN.GB2312-80 "
      "de_DE.ISO8859-1 de_DE.8859-1  sv.iso88591 sv.8859-1  de_DE.ISO8859-15 de_DE.ISO8859-15 "
      "sv sv  a.b.eucJP a.b.eucJP " +
      std::string(127, 'x') + " " + std::string(127, 'x') + " " + std::string(128, 'x') + " -");
  for (std::string name, wanted; cases >> name >> wanted;) {
    char buffer[kLocaleNameSize] = "-";
    EXPECT_EQ(normalise_locale(name.c_str(), buffer), wanted != "-") << name;
    EXPECT_EQ(buffer, wanted) << name;
  }
}

TEST(Locales, SetUp) {
  in_locale("ISO-8859-1", [] {
    // The environment's locale, what it is found to be, and the answer.
    const std::tuple<const char*, std::string, const char*> cases[] = {
        {"de_DE.nowhere", "", nullptr}, {"C", "", "C"}, {"C.UTF-8", "C.UTF-8", "C.UTF-8"}};
    for (const auto& [name, found, answer] : cases) {
      setenv("LC_ALL", name, 1);
      const char* result = nullptr;
      EXPECT_EQ(printed(1, [&] { result = init_locales("kiv", ""); }),
                "kivtrap: Locale\"" + found + "\" found.\nkivtrap: Lang Subdir is\"unknown\".\n");
      EXPECT_STREQ(result, answer);
      EXPECT_STREQ(setlocale(LC_CTYPE, nullptr), answer != nullptr ? answer : "C");
      EXPECT_EQ(std::string(get_user_locale()) + get_rap_locale(), "CC");
    }
    EXPECT_EQ(printed(0, [] { EXPECT_STREQ(init_locales("kiv", "POSIX"), "C"); }), "");
  });
}

// `letters` are the messages 10 to 17: two for each answer.
void expect_answers(const std::vector<std::string>& letters) {
  int (*const answers[])(const char*) = {is_no, is_quit, is_rename, is_yes};
  for (size_t i = 0; i < 4; ++i) {
    for (size_t j = 0; j < 8; ++j) EXPECT_EQ(answers[i]((letters[j] + "x").c_str()), j / 2 == i);
    EXPECT_EQ(answers[i]("") + answers[i]("x") + answers[i]("<1") + answers[i](nullptr), 0);
  }
  EXPECT_EQ(std::string(i18n_char_no()) + i18n_char_rename() + i18n_char_yes(),
            letters[1] + letters[5] + letters[7]);
}

TEST(Catgets, OpensAndLooksUp) {
  expect_answers({"n", "N", "q", "Q", "r", "R", "y", "Y"});
  in_locale("", [] {
    TemporaryDirectory place;
    setenv("NLSPATH", (place.path() + "/%N").c_str(), 1);
    const std::pair<std::string, const char*> catalogs[] = {
        {"vaultmre.cat", "$set 41\n264 #0\n"},  // a marker of another set
        {"old.cat", "$set 17\n264 #0\n"},
        {"new.one",
         "$set 17\n10 <10>\n11 <11>\n12 <12>\n13 <13>\n14 <14>\n15 <15>\n16 <16>\n17 <17>\n"
         "264 #1\n$set 41\n22 benutze\n264 vier\n"}};
    for (const auto& [name, text] : catalogs) compile_catalog(place.path() + "/" + name, text);
    EXPECT_EQ(vxcatopen("kiv", 0), -1) << "without a language";
    language = "de";
    const std::string most(kPathSize - 5, 'x'), more(kPathSize - 4, 'x');
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"kiv", "vaultmre.cat", "found"},
        {nullptr, "vaultmre.cat", "found"},
        {"new", "new.cat", "NOT found"},
        {"old", "old.cat", "incompatible version"},
        {most.c_str(), most + ".cat", "NOT found"},
        {more.c_str(), more + ".cat", "NOT found"},
        {"new.one", "new.one", "found"}};
    for (const auto& [name, file, outcome] : cases) {
      for (int level : {0, 1}) {
        vxcatclose(Catd);
        EXPECT_EQ(printed(level, [name = name] { Catd = vxcatopen(name, 0); }),
                  level == 0 ? "" : "kivtrap: Message catalog \"" + file + "\" " + outcome + ".\n");
        EXPECT_EQ(Catd != -1, outcome == "found");
      }
    }
    const char* text = "usage";
    EXPECT_EQ(vxcatgets(Catd, 41, 22, text), text) << "before the initialisation has ended";
    EXPECT_STREQ(vxcatgets(Catd, 41, 264, text), "vier");
    EXPECT_STREQ(vxcatgets(Catd, 17, 17, text), "<17>");
    _vx_set_initialised();
    errno = EBUSY;
    EXPECT_STREQ(vxcatgets(Catd, 41, 22, text), "benutze");
    EXPECT_TRUE(vxcatgets(Catd, 41, 23, text) == text && vxcatgets(-1, 41, 22, text) == text);
    EXPECT_EQ(errno, EBUSY);
    expect_answers({"<10>", "<11>", "<12>", "<13>", "<14>", "<15>", "<16>", "<17>"});
    EXPECT_EQ(vxcatclose(Catd), 0);
  });
}

TEST(I18n3, JoinsAndRotates) {
  const char* first = i18n_3("a", nullptr, "c");
  for (int i = 1; i < kJoinedTexts; ++i) EXPECT_NE(i18n_3("", "x", ""), first);
  EXPECT_STREQ(first, "ac");
  const std::string half(4000, 'x');
  EXPECT_EQ(i18n_3(half.c_str(), half.c_str(), ""), (half + half).substr(0, 6143));
  EXPECT_EQ(first, (half + half).substr(0, 6143)) << "its place comes round again";
}

TEST(MessageIds, OfFacilityAndNumber) {
  EXPECT_EQ(mc_message_id(1, 7), 0x8010007);
  EXPECT_EQ(mc_message_id(0x80000000, 0), -int64_t{0x7FFFF800} * 65536);
}

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
        fakes::FailingMalloc failing(granted);
        printer("x %d %3$s %2$s\n", 5, "a", "b");
      };
      EXPECT_EQ(printed(0, [&] { print(printerr); }), wanted) << granted;
      EXPECT_EQ(on_stdout([&] { print(printinfo); }), wanted) << granted;
    }
  }
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
    fakes::now = 1795036118;
    print_timestamps(1);
    const std::string name = std::string(63, 'n') + ": ";
    expect("11/18/26 15:38:38 " + name);
    for (int64_t now : {951827696L, 1782862199L, 1782862200L, 1798702200L, 4102463999L, 1L}) {
      fakes::now = now;
      print_prefix(prefix);  // the clocks may have changed
      expect(prefix);
    }
    print_timestamps(0);
    expect(name);
    EXPECT_STREQ(log_entry_time(2147483647, nullptr), "forever");
    EXPECT_STREQ(log_entry_time(INT64_MAX, nullptr), "no-time");
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
      fakes::FailingMalloc failing(granted);
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
  const std::pair<const char*, std::string> nowhere[] = {
      {"", "filename is null ... "},
      {nullptr, "filename is null ... "},
      {"/no/where", "Unable to open file /no/where for writing."}};
  for (const auto& [file, told] : nowhere) {
    auto open = [file = file] { dfopen(file); };
    EXPECT_EQ(printed(1, open) + printed(2, open), "kivtrap: dfopen: " + told + "\n");
  }
  EXPECT_EQ(debug_descriptor(), STDERR_FILENO);
  const std::string path = testing::TempDir() + "/debug_file";
  remove(path.c_str());
  auto open = [&path] { dfopen(path.c_str()); };
  EXPECT_EQ(printed(2, open) + printed(1, open), "");
  fprintf(dfopen_filehndl(), "unbuffered\n");
  debugprintf("into it\n");
  EXPECT_EQ(machine::read_file(path), "kivtrap: dfopen: Opened file " + path +
                                          " for dprintf writing.\nunbuffered\nkivtrap: into it\n");
  EXPECT_EQ(debug_descriptor(), fileno(dfopen_filehndl()));
  dfopen("/no/where");
  EXPECT_EQ(dfopen_filehndl(), nullptr);
  for (int level : {1, 2}) {
    open();
    EXPECT_EQ(printed(level, [] { close(debug_descriptor()), dfclose(); }),
              level == 1 ? "" : "kivtrap: dfclose: File stream close failed.\n");
  }
  EXPECT_TRUE(printed(2, dfclose).empty() && dfopen_filehndl() == nullptr);
}

std::string shown(const vx_error_record* record) {
  return std::to_string(record->number) + " " + record->text;
}

TEST(ErrSet, NumbersAndTexts) {
  // What type and code alone give; the severity comes from the tables.
  std::istringstream cases(
      "11000 Success;15012 Cannot allocate memory;13004 Interrupted system call;"
      "13100 Network is down;13102 Network dropped connection on reset;"
      "13104 Connection reset by peer;13110 Connection timed out;15999 Unknown error 999;"
      "25027 Cancelled;20028 Unknown error;31000 ;35032 Resource database busy;"
      "40007 Unknown error;94003 Invalid or NULL session channel;90004 Unknown error;"
      "1 Unknown error;100001 Unknown error;110001 Unknown error");
  for (std::string wanted; std::getline(cases, wanted, ';');) {
    int32_t number = std::stoi(wanted);
    EXPECT_EQ(shown(err_set(number / 10000, number % 1000)), wanted);
  }
  EXPECT_EQ(shown(err_set(2, 123005)), "23005 Timed out") << "a severity's last digit counts";
  EXPECT_EQ(shown(err_set(2, -1)), "19999 Unknown error");
  EXPECT_EQ(shown(err_set(INT32_MAX, 2000)), "-8000 Unknown error") << "wraps";
}

TEST(ErrTables, NamesSeveritiesAndTexts) {
  in_locale("", [] {
    TemporaryDirectory place;
    std::string messages = "$set 17\n";  // all are their numbers
    for (int number = 1; number < 1100; ++number) {
      const char* format = number == 279 ? " %s, %s%s" : number == 280 ? " %s %s: %s%s" : "";
      messages += std::to_string(number) + " " + std::to_string(number) + format + "\n";
    }
    compile_catalog(place.path() + "/numbers", messages);
    Catd = reinterpret_cast<int64_t>(catopen((place.path() + "/numbers").c_str(), 0));
    const vx_error_record early = {12001, "text"};  // before there are tables
    EXPECT_EQ(printed(1, [&early] { err_print(&early); }),
              "kivtrap: 279 277, text (type 1, severity 2, number 1)");
    err_set(1, 0);
    std::string tables;
    for (int32_t type = 1; const err_type* table = err_type_of(type); ++type) {
      (tables += table->name) += " ";
      for (int32_t code = 0; code <= table->max_code; ++code) {
        const vx_error_record* record = err_set(type, code);
        tables += static_cast<char>('0' + record->number / 1000 % 10);
        if (type != 2 && type != 3) continue;
        const int first = type == 3 ? 191 : code == 3 || code == 4 ? 1012 : 224;
        EXPECT_EQ(record->text, std::to_string(first + code));
      }
      tables += ";";
    }
    EXPECT_EQ(tables,
              "SYSTEM 15;RPC 1554434445554544555555555555;RAP 155555555555555555555555555555555;"
              "WISS 15;Vaultmere 15;Jukebox 15;File index 15;Media DB 15;Jobs 1454;");
    for (int32_t severity : {1, 2, 3}) {
      EXPECT_EQ(printed(0, [=] { err_print(err_set(2, severity * 1000)); }),
                "kivtrap: 280 RPC " + std::to_string(275 + severity) + ": 224");
    }
    EXPECT_NE(Global_liblocal_p_varp.load(), nullptr) << "with it go the texts at the end";
    for (int taken : {28 + 33, 0}) {
      const long held = fakes::pieces_held();
      liblocal_p_clean(varp_new_block<liblocal_p_varp>());  // as at the end of the process
      EXPECT_EQ(held - fakes::pieces_held(), taken) << "the default texts are left";
      EXPECT_STREQ(err_set(3, 32)->text, "Resource database busy");
    }
  });
}

TEST(ErrPrint, ByteForByte) {
  static const char* const texts[] = {"fine", "worn"};
  static const int32_t severities[] = {1, 2};
  const std::string name(200, 'n');
  for (int type : {-1, 10, 11}) err_settype(type, 1, name.c_str(), texts, severities);
  EXPECT_TRUE(err_type_of(10)->name == name.substr(0, 131) && err_type_of(11) == nullptr);
  EXPECT_EQ(shown(err_set(10, 2)), "100002 Unknown error");
  const std::tuple<vx_error_record, std::string, std::string> cases[] = {
      {*err_set(1, ENOMEM), "SYSTEM error: Cannot allocate memory", " (severity 5, number 12)"},
      {{92001, "50%d"}, "Jobs warning: 50%d", " (severity 2, number 1)"},
      {*err_set(10, 1), "warning, worn", " (type 10, severity 2, number 1)"},  // not named
      {{0, "nothing"}, "error, nothing", ""},
      {{7, "bare"}, "error, bare", " (type 0, severity 0, number 7)"},
      {{1, "bare"}, "error, bare", " (type 0, severity 0, number 1)"},
      {{-10001, "chain"}, "error, chain", " (number -10001)"}};
  for (const auto& [record, plain, detail] : cases) {
    auto print = [&record = record] { err_print(&record); };
    const std::string line = "kivtrap: " + plain;
    EXPECT_EQ(printed(0, print), line + "\n");
    for (int level : {1, -1}) EXPECT_EQ(printed(level, print), line + detail + "\n");
  }
  EXPECT_EQ(printed(1, [] { err_print(nullptr); }), "");
  err_settype(10, 0, "", nullptr, nullptr);
  EXPECT_EQ(err_type_of(10), nullptr);
}

TEST(ErrSetstr, FormatsAndCutsPerThread) {
  vx_error_record* record = err_setstr(3, 5012, "%s: %d", "host", 7);
  EXPECT_EQ(shown(err_setstr(3, 5012, "on %s", record->text)), "35012 on host: 7");
  EXPECT_TRUE(err_setstr(3, 1, nullptr) == nullptr && record->number == 35012);
  for (size_t length : {18430U, 18431U, 18432U}) {
    const std::string text(length, 'x');
    EXPECT_EQ(err_setstr(3, 1, "%s", text.c_str())->text, text.substr(0, 18431));
  }
  in_threads(1, [record](int) {
    EXPECT_NE(err_set(2, 5), record);
    fakes::FailingMalloc failing(0);
    EXPECT_TRUE(err_setstr(3, 1, "text") == nullptr && err_dup(record) == nullptr);
  });
  EXPECT_EQ(record->number, 35001);
}

void make_copies() {
  const vx_error_record given = {35012, "50% of %s"};
  vx_error_record copy = given;
  EXPECT_TRUE(err_dup2(nullptr, &copy) == 0 && copy.text == nullptr);
  EXPECT_EQ(err_dup2(&given, &copy), 35012);
  EXPECT_EQ(shown(err_move_to_varp(&copy)), "35012 50% of %s");
  EXPECT_TRUE(err_move_to_varp(&copy) == nullptr && err_restore(nullptr) == nullptr);
  vx_error_record* saved = err_save(&given);
  err_save(err_set(2, 5));
  EXPECT_EQ(err_save(saved)->number, 23005) << "of itself";
  err_set(1, 0);
  EXPECT_STREQ(err_restore(saved)->text, "Timed out");
  EXPECT_EQ(err_restore(saved), nullptr);
}

TEST(ErrCopies, OwnTheirTexts) {
  EXPECT_EQ(fakes::pieces_left_by(make_copies), 0);
  const vx_error_record bare = {7, nullptr};
  EXPECT_EQ(shown(err_dup(err_dup(&bare))), "7 ");
  EXPECT_EQ(err_dup(nullptr), nullptr);
  auto save = [] { err_save(err_set(1, 0)); };
  for (int level : {1, 0}) EXPECT_EQ(printed(level, save), "");
  EXPECT_EQ(printed(1, save), "kivtrap: err_save: overwriting old tmperr <Success>\n");
  err_free(nullptr);
  errno = EBUSY;
  EXPECT_STREQ(err_setall(1, 2, ENOENT, brix_strerror(EPERM))->text, "Operation not permitted");
  EXPECT_EQ(errno, EBUSY);
}

void accrue(int /*thread*/) {
  for (const char* unasked : {"unheard", static_cast<const char*>(nullptr)}) {
    EXPECT_TRUE(err_accrue(unasked) == 0 && blow_err(0) == nullptr);
  }
  for (const char* text :
       {"low\n", "notice, a", "b notice: ", "warning, c", "d warning: ", "noticed\n"}) {
    EXPECT_EQ(printed(0, [text] { printerr("%s", text); }), std::string("kivtrap: ") + text);
  }
  EXPECT_EQ(on_stdout([] { printinfo("no error"); }), "kivtrap: no error");
  for (int mode : {2, 1}) {
    EXPECT_EQ(shown(blow_err(mode)), "-10001 kivtrap: noticed\n->(kivtrap: low\n)");
  }
  EXPECT_EQ(blow_err(1), nullptr);
  // The old text, the new one and 9 must stay below 18433.
  err_accrue(std::string(18000, 'o').c_str());
  const std::string over(424, 'n');
  auto accrue_over = [&over] { EXPECT_EQ(err_accrue(over.c_str()), 0); };
  EXPECT_EQ(printed(8, accrue_over), "");
  EXPECT_EQ(printed(9, accrue_over), "kivtrap: Dropping error string " + over + "\n");
  EXPECT_EQ(printed(0, [] { EXPECT_EQ((fakes::FailingMalloc(0), err_accrue("x")), 0); }),
            "Malloc failed.\n");
  EXPECT_EQ(err_accrue(over.c_str() + 1), 0);
  EXPECT_EQ(strlen(blow_err(1)->text), 18000U + 423 + 4);
  print_set_accrual_hook(nullptr);
  EXPECT_EQ(printed(0, [] { printerr("unheard"); }), "kivtrap: unheard");
  EXPECT_EQ(blow_err(1), nullptr);
}

TEST(ErrAccrue, ChainsMessages) {
  EXPECT_EQ(fakes::pieces_left_by([] { in_threads(1, accrue); }), 0);
}

}  // namespace

#include "liblocal/messages/errinfo.h"

#include <nl_types.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include "liblocal/messages/catgets.h"
#include "liblocal/messages/err_tables.h"
#include "liblocal/messages/print.h"
#include "tests/failing_malloc.h"
#include "tests/locales.h"
#include "tests/printed.h"
#include "tests/threads.h"

namespace {

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

TEST(ErrTables, NamesAndSeverities) {
  const std::string wanted =
      "SYSTEM 15;RPC 1554434445554544555555555555;RAP 155555555555555555555555555555555;WISS 15;"
      "Vaultmere 15;Jukebox 15;File index 15;Media DB 15;Jobs 1454;";
  err_set(1, 0);
  for (int round = 0; round < 3; ++round) {
    std::string tables;
    for (int32_t type = 1; const err_type* table = err_type_of(type); ++type) {
      (tables += table->name) += " ";
      for (int32_t code = 0; code <= table->max_code; ++code) {
        tables += static_cast<char>('0' + err_set(type, code)->number / 1000 % 10);
      }
      tables += ";";
    }
    EXPECT_EQ(tables, wanted);
    err_unsetall();  // which late users do not notice
  }
}

TEST(ErrTables, TakeTheirTextsFromTheCatalog) {
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
    for (int code = 0; code < 28; ++code) {
      const int message = code == 3 || code == 4 ? 1012 + code : 224 + code;
      EXPECT_EQ(err_set(2, code)->text, std::to_string(message));
    }
    for (int code = 0; code < 33; ++code) {
      EXPECT_EQ(err_set(3, code)->text, std::to_string(191 + code));
    }
    for (int32_t severity : {1, 2, 3}) {
      EXPECT_EQ(printed(0, [=] { err_print(err_set(2, severity * 1000)); }),
                "kivtrap: 280 RPC " + std::to_string(275 + severity) + ": 224");
    }
    EXPECT_NE(Global_liblocal_p_varp.load(), nullptr) << "with it go the texts at the end";
    const long held = pieces_held();
    err_unsetall();
    EXPECT_EQ(held - pieces_held(), 28 + 33) << "the default texts are left";
    EXPECT_STREQ(err_set(3, 32)->text, "Resource database busy");
  });
}

TEST(ErrPrint, ByteForByte) {
  const std::tuple<vx_error_record, std::string, std::string> cases[] = {
      {*err_set(1, ENOMEM), "SYSTEM error: Cannot allocate memory", " (severity 5, number 12)"},
      {{92001, "50%d"}, "Jobs warning: 50%d", " (severity 2, number 1)"},
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
}

TEST(ErrPrint, DoesNotNameARegisteredType) {
  static const char* const texts[] = {"fine", "worn"};
  static const int32_t severities[] = {1, 2};
  const std::string name(200, 'n');
  for (int type : {-1, 10, 11}) err_settype(type, 1, name.c_str(), texts, severities);
  EXPECT_EQ(err_type_of(10)->name, name.substr(0, 131));
  EXPECT_EQ(shown(err_set(10, 2)), "100002 Unknown error");
  EXPECT_EQ(printed(0, [] { err_print(err_set(10, 1)); }), "kivtrap: warning, worn\n");
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
    FailingMalloc failing(0);
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

  blow_err(1);
  for (const char* text : {"one", "two"}) err_accrue(text);
  EXPECT_EQ(shown(blow_err(2)), "-10001 two->(one)") << "which are kept";
  blow_err(1);
}

TEST(ErrCopies, OwnTheirTexts) {
  EXPECT_EQ(pieces_left_by(make_copies), 0);
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

TEST(ErrAccrue, ChainsMessages) {
  in_threads(1, [](int) {  // unasked
    for (const char* text : {"unheard", static_cast<const char*>(nullptr)}) {
      err_accrue(text);
      EXPECT_EQ(blow_err(0), nullptr);
    }
  });
  blow_err(1);
  for (const char* text : {"low\n", "notice, no failure\n", "high 1\n"}) {
    EXPECT_EQ(printed(0, [text] { printerr("%s", text); }), std::string("kivtrap: ") + text);
  }
  EXPECT_EQ(shown(blow_err(1)), "-10001 kivtrap: high 1\n->(kivtrap: low\n)");
  EXPECT_EQ(blow_err(1), nullptr);

  // The old text, the new one and 9 must stay below 18433.
  err_accrue(std::string(18000, 'o').c_str());
  const std::string over(424, 'n');
  EXPECT_EQ(printed(8, [&] { err_accrue(over.c_str()); }), "");
  EXPECT_EQ(printed(9, [&] { err_accrue(over.c_str()); }),
            "kivtrap: Dropping error string " + over + "\n");
  EXPECT_EQ(printed(0, [] { FailingMalloc(0), err_accrue("x"); }), "Malloc failed.\n");
  err_accrue(over.c_str() + 1);
  EXPECT_EQ(strlen(blow_err(1)->text), 18000U + 423 + 4);
}

}  // namespace

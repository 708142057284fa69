#include "liblocal/messages/errinfo.h"

#include <gtest/gtest.h>
#include <nl_types.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <thread>

#include "liblocal/messages/catgets.h"
#include "liblocal/messages/err_tables.h"
#include "liblocal/messages/print.h"
#include "tests/failing_malloc.h"
#include "tests/lab.h"
#include "tests/printed.h"

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

TEST(ErrSet, NamesAndSeveritiesOfWholeTables) {
  const std::string wanted =
      "SYSTEM 15;RPC 1554434445554544555555555555;RAP 155555555555555555555555555555555;WISS 15;"
      "Vaultmere 15;Jukebox 15;File index 15;Media DB 15;Jobs 1454;";
  err_set(1, 0);
  for (int round = 0; round < 3; ++round) {
    std::string tables;
    for (int32_t type = 1; type < 10; ++type) {
      (tables += err_type_of(type)->name) += " ";
      for (int32_t code = 0; code <= err_type_of(type)->max_code; ++code) {
        tables += static_cast<char>('0' + err_set(type, code)->number / 1000 % 10);
      }
      tables += ";";
    }
    EXPECT_EQ(tables, wanted);
    err_unsetall();  // which late users do not notice
  }
}

// In a process of its own, where all messages of set 17 are their numbers.
void print_with_a_catalog() {
  const std::string place = testing::TempDir() + "numbers";
  std::string messages = "$set 17\n";
  for (int number = 1; number < 1100; ++number) {
    const char* format = number == 279 ? " %s, %s%s" : number == 280 ? " %s %s: %s%s" : "";
    messages += std::to_string(number) + " " + std::to_string(number) + format + "\n";
  }
  lab::write_file(place, messages);
  EXPECT_EQ(system(("gencat " + place + ".cat " + place).c_str()), 0);
  Catd = reinterpret_cast<int64_t>(catopen((place + ".cat").c_str(), 0));
  vx_set_progname("p");
  Debug = 1;
  const vx_error_record early = {12001, "text"};
  err_print(&early);
  Debug = 0;
  for (int32_t type : {2, 3}) {
    for (int32_t code = 0; code < 33; ++code) fprintf(stderr, ",%s", err_set(type, code)->text);
  }
  for (int32_t severity : {1, 2, 3}) err_print(err_set(2, severity * 1000));
  err_unsetall();  // the default texts are left
  fprintf(stderr, "%s,%s", err_set(2, 27)->text, err_set(3, 32)->text);
  exit(4);
}

TEST(ErrTables, TakeTheirTextsFromTheCatalog) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::string wanted = "^p: 279 277, text \\(type 1, severity 2, number 1\\)";
  std::istringstream runs("224 226 1015 1016 229 251 0 4 191 223");
  for (int number, last; runs >> number >> last;) {
    for (; number <= last; ++number) {
      wanted += "," + (last == 4 ? "Unknown error" : std::to_string(number));
    }
  }
  wanted +=
      "p: 280 RPC 276: 224p: 280 RPC 277: 224p: 280 RPC 278: 224Cancelled,Resource database busy$";
  EXPECT_EXIT(print_with_a_catalog(), testing::ExitedWithCode(4), wanted);
}

TEST(ErrPrint, ByteForByte) {
  const struct {
    vx_error_record record;
    std::string plain, detail;
  } cases[] = {
      {*err_set(1, ENOMEM), "SYSTEM error: Cannot allocate memory", " (severity 5, number 12)"},
      {{92001, "50%d"}, "Jobs warning: 50%d", " (severity 2, number 1)"},
      {{0, "nothing"}, "error, nothing", ""},
      {{7, "bare"}, "error, bare", " (type 0, severity 0, number 7)"},
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
  EXPECT_EQ(err_setstr(3, 1, nullptr), nullptr);
  EXPECT_EQ(record->number, 35012) << "a null format sets nothing";
  for (size_t length : {18430U, 18431U, 18432U}) {
    const std::string text(length, 'x');
    EXPECT_EQ(err_setstr(3, 1, "%s", text.c_str())->text, text.substr(0, 18431));
  }
  std::thread([record] {
    EXPECT_NE(err_set(2, 5), record);
    FailingMalloc failing(0);
    EXPECT_EQ(err_setstr(3, 1, "text"), nullptr);
    EXPECT_EQ(err_dup(record), nullptr);
  }).join();
  EXPECT_EQ(record->number, 35001);
}

void make_copies() {
  const vx_error_record given = {35012, "50% of %s"};
  vx_error_record copy = given;
  EXPECT_EQ(err_dup2(nullptr, &copy), 0);
  EXPECT_EQ(copy.text, nullptr);
  EXPECT_EQ(err_dup2(&given, &copy), 35012);
  EXPECT_EQ(shown(err_move_to_varp(&copy)), "35012 50% of %s");
  EXPECT_EQ(err_move_to_varp(&copy), nullptr);
  EXPECT_EQ(err_restore(nullptr), nullptr);

  vx_error_record* saved = err_save(&given);
  err_save(err_set(2, 5));
  EXPECT_EQ(err_save(saved)->number, 23005) << "of itself";
  err_set(1, 0);
  EXPECT_STREQ(err_restore(saved)->text, "Timed out");
  EXPECT_EQ(err_restore(saved), nullptr);

  blow_err(1);
  err_accrue("one");
  err_accrue("two");
  EXPECT_EQ(shown(blow_err(2)), "-10001 two->(one)") << "which are kept";
  blow_err(1);
}

TEST(ErrCopies, OwnTheirTexts) {
  EXPECT_LT(bytes_left_by(1000, make_copies), 24 * 1000);
  const vx_error_record bare = {7, nullptr};
  EXPECT_EQ(shown(err_dup(err_dup(&bare))), "7 ");
  EXPECT_EQ(err_dup(nullptr), nullptr);
  for (const char* told : {"", "kivtrap: err_save: overwriting old tmperr <Success>\n"}) {
    EXPECT_EQ(printed(1, [] { err_save(err_set(1, 0)); }), told);
  }
  EXPECT_EQ(printed(0, [] { err_save(err_set(1, 0)); }), "");
  err_free(nullptr);
  errno = EBUSY;
  EXPECT_STREQ(err_setall(1, 2, ENOENT, brix_strerror(EPERM))->text, "Operation not permitted");
  EXPECT_EQ(errno, EBUSY);
}

TEST(ErrAccrue, ChainsMessages) {
  std::thread unasked([] {
    err_accrue("unheard");
    EXPECT_EQ(blow_err(0), nullptr);
    err_accrue(nullptr);
    EXPECT_EQ(blow_err(0), nullptr);
  });
  unasked.join();
  blow_err(1);
  auto print = [] {
    printerr("low\n");
    printerr("notice, no failure\n");
    printerr("high %d\n", 1);
  };
  EXPECT_EQ(printed(0, print), "kivtrap: low\nkivtrap: notice, no failure\nkivtrap: high 1\n");
  EXPECT_EQ(shown(blow_err(1)), "-10001 kivtrap: high 1\n->(kivtrap: low\n)");
  EXPECT_EQ(blow_err(1), nullptr);

  // The old text, the new one and 9 must stay below 18433.
  err_accrue(std::string(18000, 'o').c_str());
  const std::string over(424, 'n');
  EXPECT_EQ(printed(8, [&] { err_accrue(over.c_str()); }), "");
  EXPECT_EQ(printed(9, [&] { err_accrue(over.c_str()); }),
            "kivtrap: Dropping error string " + over + "\n");
  auto without_memory = [] {
    FailingMalloc nothing(0);
    err_accrue("x");
  };
  EXPECT_EQ(printed(0, without_memory), "Malloc failed.\n");
  err_accrue(over.c_str() + 1);
  EXPECT_EQ(strlen(blow_err(1)->text), 18000U + 423 + 4);
}

}  // namespace

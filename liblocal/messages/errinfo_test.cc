#include "liblocal/messages/errinfo.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <thread>

#include "liblocal/messages/err_tables.h"
#include "liblocal/messages/print.h"
#include "tests/failing_malloc.h"
#include "tests/printed.h"

namespace {

std::string shown(const vx_error_record* record) {
  return std::to_string(record->number) + " " + record->text;
}

TEST(ErrSet, NumbersAndTexts) {
  // What type and code alone give; the severity comes from the tables.
  std::istringstream cases(
      "11000 Success;15012 Cannot allocate memory;13004 Interrupted system call;"
      "13100 Network is down;13110 Connection timed out;15999 Unknown error 999;"
      "21000 Success;23005 Timed out;25027 Cancelled;20028 Unknown error;"
      "31000 ;35001 Operation not supported;35017 system error;35032 Resource database busy;"
      "30033 Unknown error;41000 Success;85001 Unknown error;40007 Unknown error;"
      "91000 ;94001 Invalid arguments;95002 Unable to find job record;"
      "94003 Invalid or NULL session channel;90004 Unknown error;"
      "1 Unknown error;100001 Unknown error;110001 Unknown error");
  for (std::string wanted; std::getline(cases, wanted, ';');) {
    int32_t number = std::stoi(wanted);
    EXPECT_EQ(shown(err_set(number / 10000, number % 1000)), wanted);
  }
  EXPECT_EQ(shown(err_set(2, 2005)), "22005 Timed out") << "a severity of the caller's own,";
  EXPECT_EQ(shown(err_set(2, 123005)), "23005 Timed out") << "of which the last digit counts";
  EXPECT_EQ(shown(err_set(2, -1)), "19999 Unknown error");
  EXPECT_EQ(shown(err_set(INT32_MAX, 0)), "-10000 Unknown error") << "wraps";
}

TEST(ErrSet, WholeTables) {
  err_tables_init();
  const std::pair<int32_t, std::string> cases[] = {{2, "1554434445554544555555555555"},
                                                   {3, "155555555555555555555555555555555"}};
  for (const auto& [type, wanted] : cases) {
    std::string severities;
    for (int32_t code = 0; code <= err_type_of(type)->max_code; ++code) {
      vx_error_record* record = err_set(type, code);
      severities += static_cast<char>('0' + record->number / 1000 % 10);
      EXPECT_EQ(*record->text == '\0', type == 3 && code == 0) << code;
    }
    EXPECT_EQ(severities, wanted);
  }
}

TEST(ErrSet, ARegisteredType) {
  static const char* const texts[] = {"fine", "worn"};
  static const int32_t severities[] = {1, 2};
  err_settype(10, 1, std::string(200, 'n').c_str(), texts, severities);
  EXPECT_EQ(shown(err_set(10, 1)), "102001 worn");
  EXPECT_EQ(strlen(err_type_of(10)->name), kErrTypeNameSize - 1);
  err_settype(10, 0, "", nullptr, nullptr);
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
    EXPECT_EQ(printed(1, print), line + detail + "\n");
  }
  EXPECT_EQ(printed(1, [] { err_print(nullptr); }), "");
}

TEST(ErrSetstr, FormatsAndCutsPerThread) {
  vx_error_record* record = err_setstr(3, 5012, "%s: %d", "host", 7);
  EXPECT_EQ(shown(record), "35012 host: 7");
  EXPECT_EQ(shown(err_setstr(3, 5012, "on %s", record->text)), "35012 on host: 7");
  EXPECT_EQ(err_setstr(3, 1, nullptr), nullptr);
  EXPECT_EQ(record->number, 35012) << "a null format sets nothing";
  for (size_t length : {18430U, 18431U, 18432U}) {
    const std::string text(length, 'x');
    const size_t kept = length < kMessageSize ? length : kMessageSize - 1;
    EXPECT_EQ(strlen(err_setstr(3, 1, "%s", text.c_str())->text), kept);
  }
  record = err_setstr(3, 5001, "mine");
  std::thread([record] {
    EXPECT_NE(err_set(2, 5), record);
    FailingMalloc failing(0);
    EXPECT_EQ(err_setstr(3, 1, "text"), nullptr);
    EXPECT_EQ(err_dup(record), nullptr);
  }).join();
  EXPECT_EQ(shown(record), "35001 mine");
}

TEST(ErrCopies, Ownership) {
  const vx_error_record given = {35012, "50% of %s"};
  vx_error_record* current = err_dup(&given);
  EXPECT_EQ(shown(err_dup(current)), "35012 50% of %s") << "of itself";
  vx_error_record copy;
  EXPECT_EQ(err_dup2(&given, &copy), 35012);
  EXPECT_NE(copy.text, given.text);
  err_set(2, 5);
  EXPECT_EQ(err_move_to_varp(&copy)->number, 35012);
  EXPECT_EQ(copy.text, nullptr);
  EXPECT_EQ(err_move_to_varp(&copy), nullptr);

  vx_error_record* saved = err_save(&given);
  EXPECT_EQ(printed(1, [] { err_save(err_set(2, 5)); }),
            "kivtrap: err_save: overwriting old tmperr <50% of %s>\n");
  EXPECT_EQ(err_save(saved)->number, 23005) << "of itself";
  err_set(1, 0);
  EXPECT_STREQ(err_restore(saved)->text, "Timed out");
  EXPECT_EQ(err_restore(saved), nullptr);
  err_save(&given);  // the thread's block frees what is left
}

TEST(ErrAccrue, ChainsMessages) {
  err_accrue("nobody has asked yet");
  EXPECT_EQ(blow_err(0), nullptr);
  auto print = [] {
    printerr("low\n");
    printerr("notice, no failure\n");
    printerr("high %d\n", 1);
  };
  EXPECT_EQ(printed(0, print), "kivtrap: low\nkivtrap: notice, no failure\nkivtrap: high 1\n");
  EXPECT_EQ(shown(blow_err(0)), "-10001 kivtrap: high 1\n->(kivtrap: low\n)");
  EXPECT_NE(blow_err(1), nullptr);
  EXPECT_EQ(blow_err(1), nullptr);

  // The old text, the new one and 9 must stay below 18433.
  err_accrue(std::string(18000, 'o').c_str());
  const std::string over(424, 'n');
  EXPECT_EQ(printed(9, [&] { err_accrue(over.c_str()); }),
            "kivtrap: Dropping error string " + over + "\n");
  FailingMalloc* failing = new FailingMalloc(0);
  EXPECT_EQ(printed(0, [] { err_accrue("x"); }), "Malloc failed.\n");
  delete failing;
  err_accrue(over.c_str() + 1);
  EXPECT_EQ(strlen(blow_err(1)->text), 18000U + 423 + 4);
}

}  // namespace

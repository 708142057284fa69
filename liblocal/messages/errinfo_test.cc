// Error records and their tables.
#include "liblocal/messages/errinfo.h"

#include <nl_types.h>

#include <cerrno>
#include <set>

#include "liblocal/messages/catgets.h"
#include "liblocal/messages/err_tables.h"
#include "liblocal/messages/print.h"
#include "tests/fakes.h"
#include "tests/locales.h"
#include "tests/work.h"

namespace {

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
  expect_record(err_set(2, 0), 21000, "Success");
  expect_record(err_set(2, 123005), 23005, "Timed out");
  expect_record(err_set(3, 33), 30033, "Unknown error");
  expect_record(err_set(2, -1), 19999, "Unknown error");
  expect_record(err_set(9, 2), 95002, "Unable to find job record");
  expect_record(err_set(9, 3), 94003, "Invalid or NULL session channel");
  expect_record(err_set(11, 1), 110001, "Unknown error");
}

TEST(ErrTables, HaveTheTextsOfTheCatalog) {
  in_locale("", [] {
    const TemporaryDirectory place;
    const std::string path = place.path() + "/numbers";
    std::string messages = "$set 17\n";  // each text is its number
    for (int number = 191; number < 279; ++number) {
      messages += std::to_string(number) + " " + std::to_string(number) + "\n";
    }
    compile_catalog(path, messages + "279 %s, %s%s\n280 %s-%s: %s%s\n1015 1015\n1016 1016\n");
    Catd = reinterpret_cast<int64_t>(catopen(path.c_str(), 0));
    EXPECT_EQ(printed_record(0, {12001, "a"}), "277, a") << "before the tables are made";
    for (int code = 0; code < kRpcErrorCodes; ++code) {
      const int number = (code == 3 || code == 4 ? 1012 : 224) + code;
      EXPECT_EQ(err_set(2, code)->text, std::to_string(number));
    }
    for (int code = 0; code <= 32; ++code) {
      EXPECT_EQ(err_set(3, code)->text, std::to_string(191 + code));
    }
    EXPECT_EQ(printed_record(0, {21000, "a"}), "RPC-276: a");
  });
}

TEST(ErrTables, KnowTheSeverityOfEveryRpcStatus) {
  const std::set<int32_t> errors = {3, 4, 6, 7, 8, 12, 14, 15};
  for (int32_t code = 1; code < kRpcErrorCodes; ++code) {
    const int32_t severity = code == 5 ? 3 : errors.contains(code) ? 4 : 5;
    EXPECT_EQ(err_set(2, code)->number, 20000 + severity * 1000 + code);
  }
}

TEST(ErrTables, ReleaseTheirTextsAtTheEnd) {
  err_set(3, 32);
  const long held = fakes::pieces_held();
  for (int i = 0; i < 2; ++i) {
    err_unsetall();
    EXPECT_EQ(held - fakes::pieces_held(), 28 + 33);
    expect_record(err_set(3, 32), 35032, "Resource database busy");
  }
}

TEST(ErrTables, TakeATypeOfTheProgram) {
  static const char* const texts[] = {"fine", "worn"};
  static const int32_t severities[] = {1, 2};
  const std::string name(200, 'n');
  for (int type : {-1, 10, 11}) err_settype(type, 1, name.c_str(), texts, severities);
  EXPECT_EQ(err_type_of(10)->name, name.substr(0, 131));
  EXPECT_EQ(err_type_of(11), nullptr);
  expect_record(err_set(10, 1), 102001, "worn");
}

TEST(ErrPrint, AddsDetailsUnlessTheLevelIs0) {
  err_set(1, 0);  // makes the tables
  EXPECT_EQ(printed_record(0, {92001, "50%d"}), "Jobs warning: 50%d\n");
  EXPECT_EQ(printed_record(-1, {92001, "50%d"}), "Jobs warning: 50%d (severity 2, number 1)\n");
  EXPECT_EQ(printed_record(0, {62001, "full"}), "Jukebox warning: full\n");
  EXPECT_EQ(printed_record(1, {102001, "worn"}), "warning, worn (type 10, severity 2, number 1)\n");
  EXPECT_EQ(printed_record(1, {0, "nothing"}), "error, nothing\n");
  EXPECT_EQ(printed_record(1, {-10001, "chain"}), "error, chain (number -10001)\n");
}

TEST(ErrSetstr, FormatsAndCuts) {
  const vx_error_record* record = err_setstr(3, 5012, "%s: %d", "host", 7);
  expect_record(err_setstr(3, 5012, "on %s", record->text), 35012, "on host: 7");
  EXPECT_EQ(err_setstr(3, 1, nullptr), nullptr);
  const std::string text(18432, 'x');
  EXPECT_EQ(err_setstr(3, 1, "%s", text.c_str())->text, text.substr(1));
}

TEST(ErrCopies, OwnTheirTexts) {
  auto copy_and_free = [] {
    const vx_error_record given = {35012, "50% of %s"};
    vx_error_record copy;
    EXPECT_EQ(err_dup2(&given, &copy), 35012);
    expect_record(err_move_to_varp(&copy), 35012, given.text);
    EXPECT_EQ(err_move_to_varp(&copy), nullptr);
    vx_error_record* saved = err_save(&given);
    err_save(saved);
    err_set(1, 0);
    expect_record(err_restore(saved), 35012, given.text);
    EXPECT_EQ(err_dup2(nullptr, &copy), 0);
  };
  EXPECT_EQ(fakes::pieces_left_by(copy_and_free), 0);
}

TEST(ErrSave, ShowsWhatItReplaces) {
  auto save = [] { err_save(err_set(1, 0)); };
  EXPECT_EQ(printed(1, save), "");
  EXPECT_EQ(printed(0, save), "");
  EXPECT_EQ(printed(1, save), "kivtrap: err_save: overwriting old tmperr <Success>\n");
}

TEST(ErrAccrue, ChainsMessagesButNoticesAndWarnings) {
  auto chain = [](int /*thread*/) {
    EXPECT_EQ(blow_err(0), nullptr);
    for (const char* text : {"low\n", "notice, a", "b warning: ", "noticed\n"}) {
      EXPECT_EQ(printed(0, [text] { printerr("%s", text); }), std::string("kivtrap: ") + text);
    }
    for (int mode : {2, 1}) {
      expect_record(blow_err(mode), -10001, "kivtrap: noticed\n->(kivtrap: low\n)");
    }
    EXPECT_EQ(blow_err(1), nullptr);
    err_accrue("freed with the thread");
  };
  EXPECT_EQ(fakes::pieces_left_by([&] { in_threads(1, chain); }), 0);
  print_set_accrual_hook(nullptr);
}

TEST(ErrAccrue, DropsWhatDoesNotFit) {
  blow_err(1);
  err_accrue(std::string(18000, 'o').c_str());
  const std::string over(18433 - 18000 - 9, 'n');
  EXPECT_EQ(printed(9, [&over] { err_accrue(over.c_str()); }),
            "kivtrap: Dropping error string " + over + "\n");
  err_accrue(over.c_str() + 1);
  EXPECT_EQ(strlen(blow_err(0)->text), 18000 + over.size() - 1 + strlen("->()"));
}

}  // namespace

#include "liblocal/errinfo.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

#include "liblocal/debug.h"
#include "liblocal/err_tables.h"
#include "liblocal/print.h"
#include "liblocal/vxinit.h"
#include "tests/failing_malloc.h"

namespace {

using testing::Each;

constexpr size_t kLongest = kMessageSize - 1;

std::string printed(auto print, int level = 0) {
  vx_set_progname("kivtrap");
  Debug = level;
  testing::internal::CaptureStderr();
  print();
  Debug = 0;
  return testing::internal::GetCapturedStderr();
}

TEST(ErrSet, NumbersAndTexts) {
  const struct {
    int32_t type, number, wanted;
    const char* text;
  } cases[] = {
      {1, 0, 11000, "Success"},
      {1, ENOMEM, 15012, "Cannot allocate memory"},
      {1, EINTR, 13004, "Interrupted system call"},
      {1, ETIMEDOUT, 13110, "Connection timed out"},
      {1, ENETDOWN, 13100, "Network is down"},
      {1, 999, 15999, "Unknown error 999"},
      {2, 0, 21000, "Success"},
      {2, 2, 25002, "Can't decode result"},
      {2, 3, 24003,
       "RPC send operation failed.  A network connection could not be established with the host."},
      {2, 5, 23005, "Timed out"},
      {2, 12, 24012, "Remote system error"},
      {2, 13, 25013, "Unknown host"},
      {2, 18, 25018, "Call interrupted"},
      {2, 27, 25027, "Cancelled"},
      {2, 28, 20028, "Unknown error"},
      {3, 0, 31000, ""},
      {3, 17, 35017, "system error"},
      {3, 32, 35032, "Resource database busy"},
      {3, 33, 30033, "Unknown error"},
      {4, 0, 41000, "Success"},
      {8, 1, 85001, "Unknown error"},
      {4, 7, 40007, "Unknown error"},
      {9, 0, 91000, ""},
      {9, 1, 94001, "Invalid arguments"},
      {9, 2, 95002, "Unable to find job record"},
      {9, 3, 94003, "Invalid or NULL session channel"},
      {2, 2005, 22005, "Timed out"},    // a severity of the caller's own
      {2, 123005, 23005, "Timed out"},  // of which only the last digit counts
      {2, -1, 19999, "Unknown error"},
      {0, 1, 1, "Unknown error"},
      {10, 1, 100001, "Unknown error"},
      {11, 1, 110001, "Unknown error"},
      {INT32_MAX, 0, -10000, "Unknown error"},  // wraps
  };
  for (const auto& [type, number, wanted, text] : cases) {
    vx_error_record* record = err_set(type, number);
    EXPECT_EQ(record->number, wanted) << type << " " << number;
    EXPECT_STREQ(record->text, text) << type << " " << number;
  }
  for (int code = 18; code < kRpcErrorCodes; ++code)
    EXPECT_EQ(err_set(2, code)->number, 25000 + code);
  for (const char* text : rpc_errlist) EXPECT_STRNE(text, "");
  for (int code = 1; code <= 32; ++code) {
    EXPECT_EQ(err_set(3, code)->number, 35000 + code);
    EXPECT_STRNE(err_set(3, code)->text, "Unknown error");
  }
}

TEST(ErrSettype, RegistersASlot) {
  static const char* const texts[] = {"fine", "worn", "gone"};
  static const int32_t severities[] = {1, 2, 5};
  err_settype(10, 2, std::string(200, 'n').c_str(), texts, severities);
  err_settype(11, 2, "ignored", texts, severities);
  EXPECT_EQ(err_set(10, 1)->number, 102001);
  EXPECT_STREQ(err_set(10, 2)->text, "gone");
  EXPECT_EQ(strlen(err_type_of(10)->name), kErrTypeNameSize - 1);
  EXPECT_STREQ(err_set(11, 2)->text, "Unknown error");
  err_settype(10, 0, "", nullptr, nullptr);
}

TEST(ErrPrint, ByteForByte) {
  vx_error_record made[] = {{0, "nothing"}, {-10001, "chain"}, {101007, "new"}, {7, "bare"}};
  const struct {
    const vx_error_record* record;
    const char *plain, *detail;
  } cases[] = {
      {nullptr, "", ""},
      {&made[0], "error, nothing", ""},
      {&made[1], "error, chain", " (number -10001)"},
      {&made[2], "notice, new", " (type 10, severity 1, number 7)"},
      {&made[3], "error, bare", " (type 0, severity 0, number 7)"},
  };
  for (const auto& [record, plain, detail] : cases) {
    std::string start = *plain != '\0' ? std::string("kivtrap: ") + plain : "";
    std::string end = *plain != '\0' ? "\n" : "";
    EXPECT_EQ(printed([&] { err_print(record); }), start + end);
    EXPECT_EQ(printed([&] { err_print(record); }, 1), start + detail + end);
  }
  EXPECT_EQ(printed([] { err_print(err_set(1, ENOMEM)); }),
            "kivtrap: SYSTEM error: Cannot allocate memory\n");
  EXPECT_EQ(printed([] { err_print(err_set(1, ENOMEM)); }, 1),
            "kivtrap: SYSTEM error: Cannot allocate memory (severity 5, number 12)\n");
  EXPECT_EQ(printed([] { err_print(err_set(3, 0)); }), "kivtrap: RAP notice: \n");
  EXPECT_EQ(printed([] { err_print(err_setstr(9, 2001, "%d%%", 50)); }, -1),
            "kivtrap: Jobs warning: 50% (severity 2, number 1)\n");
}

TEST(ErrSetstr, FormatsAndCuts) {
  vx_error_record* record = err_setstr(3, 5012, "%s: %d", "host", 7);
  EXPECT_EQ(record->number, 35012);
  EXPECT_STREQ(record->text, "host: 7");
  EXPECT_EQ(err_setstr(3, 1, nullptr), nullptr);
  EXPECT_EQ(record->number, 35012) << "a null format sets nothing";
  const std::string longer(kLongest + 1, 'x');
  for (size_t length : {kLongest - 1, kLongest, kLongest + 1}) {
    std::string text = longer.substr(0, length);
    EXPECT_EQ(err_setstr(3, 1, "%s", text.c_str())->text,
              longer.substr(0, std::min(length, kLongest)));
    vx_error_record given = {35001, text.c_str()};
    EXPECT_EQ(err_dup(&given)->text, longer.substr(0, std::min(length, kLongest)));
  }
}

TEST(ErrSetstr, WithoutMemoryThereIsNoError) {
  std::thread([] {
    vx_error_record given = *err_set(2, 5);
    {
      FailingMalloc failing(0);
      EXPECT_EQ(err_setstr(3, 1, "text"), nullptr);
      EXPECT_EQ(err_dup(&given), nullptr);
      EXPECT_TRUE(failing.failed());
    }
    EXPECT_EQ(err_set(2, 5)->number, 23005);
  }).join();
}

TEST(ErrCopies, Ownership) {
  vx_error_record given = {35012, "50% of %s"};
  vx_error_record* current = err_dup(&given);
  EXPECT_EQ(current->number, 35012);
  EXPECT_STREQ(current->text, "50% of %s");
  EXPECT_STREQ(err_dup(current)->text, "50% of %s") << "of itself";
  EXPECT_EQ(err_dup(nullptr), nullptr);

  vx_error_record copy;
  EXPECT_EQ(err_dup2(&given, &copy), 35012);
  EXPECT_NE(copy.text, given.text);
  err_set(2, 5);
  EXPECT_EQ(err_move_to_varp(&copy)->number, 35012);
  EXPECT_EQ(copy.text, nullptr);
  EXPECT_EQ(err_move_to_varp(&copy), nullptr);
  EXPECT_EQ(err_dup2(nullptr, &copy), 0);
  EXPECT_EQ(copy.text, nullptr);

  vx_error_record* saved = err_save(&given);
  EXPECT_EQ(printed([&] { err_save(err_set(2, 5)); }, 1),
            "kivtrap: err_save: overwriting old tmperr <50% of %s>\n");
  EXPECT_EQ(err_save(saved)->number, 23005);
  EXPECT_STREQ(saved->text, "Timed out");
  err_set(1, 0);
  EXPECT_STREQ(err_restore(saved)->text, "Timed out");
  EXPECT_EQ(err_restore(saved), nullptr);
  err_save(&given);  // the thread's block frees what is left
}

TEST(ErrAccrue, ChainsMessages) {
  EXPECT_EQ(blow_err(0), nullptr);
  const std::string out = printed([] {
    printerr("low");
    printerr("a notice, no failure");
    printerr("a warning: no failure");
    printerr("high %d", 1);
  });
  EXPECT_EQ(
      out,
      "kivtrap: lowkivtrap: a notice, no failurekivtrap: a warning: no failurekivtrap: high 1");
  vx_error_record* record = blow_err(0);
  EXPECT_EQ(record->number, -10001);
  EXPECT_STREQ(record->text, "kivtrap: high 1->(kivtrap: low)");
  err_set(2, 5);
  EXPECT_STREQ(blow_err(1)->text, "kivtrap: high 1->(kivtrap: low)");
  EXPECT_EQ(blow_err(1), nullptr);

  // old + new + 9 must stay below 18433
  err_accrue(std::string(18000, 'o').c_str());
  const std::string over(424, 'n');
  EXPECT_EQ(printed([&] { err_accrue(over.c_str()); }, 9),
            "kivtrap: Dropping error string " + over + "\n");
  EXPECT_EQ(printed([&] {
              FailingMalloc failing(0);
              err_accrue("x");
            }),
            "Malloc failed.\n");
  err_accrue(over.substr(1).c_str());
  EXPECT_EQ(strlen(blow_err(1)->text), 18000U + 423U + 4U);
  std::thread([] { err_accrue("another thread does not accrue"); }).join();
  EXPECT_EQ(blow_err(1), nullptr);
}

TEST(ErrThreads, NeverShareARecord) {
  vx_error_record* mine = err_setstr(3, 5001, "mine");
  std::thread([mine] {
    vx_error_record* theirs = err_setstr(3, 5002, "theirs");
    EXPECT_NE(theirs, mine);
    EXPECT_STRNE(brix_strerror(ENOENT), "");
  }).join();
  EXPECT_EQ(mine->number, 35001);
  EXPECT_STREQ(mine->text, "mine");
}

TEST(BrixStrerror, KeepsErrno) {
  errno = EBUSY;
  EXPECT_STREQ(brix_strerror(ENOENT), "No such file or directory");
  EXPECT_STREQ(brix_strerror(9999), "Unknown error 9999");
  EXPECT_EQ(errno, EBUSY);
}

}  // namespace

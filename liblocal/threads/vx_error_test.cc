#include "liblocal/threads/vx_error.h"

#include <gtest/gtest.h>
#include <netdb.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <sstream>

#include "tests/failing_malloc.h"
#include "tests/threads.h"

namespace {

constexpr const char* kCodes =
    "3 E2BIG 4 EACCES 5 EADDRINUSE 6 EADDRNOTAVAIL 7 EAFNOSUPPORT 8 EAGAIN 10 EBADF 11 EBADMSG "
    "12 EBUSY 14 ECHILD 15 ECONNABORTED 16 ECONNREFUSED 17 ECONNRESET 18 EDEADLK 19 EDESTADDRREQ "
    "20 EDOM 21 EDQUOT 22 EEXIST 23 EFAULT 24 EFBIG 26 EHOSTUNREACH 27 EIDRM 28 EILSEQ "
    "29 EINPROGRESS 30 EINTR 31 EINVAL 32 EIO 33 EISCONN 34 EISDIR 35 ELOOP 36 EMFILE 37 EMLINK "
    "38 EMSGSIZE 39 EMULTIHOP 40 ENAMETOOLONG 41 ENETDOWN 42 ENETRESET 43 ENETUNREACH 44 ENFILE "
    "46 ENOBUFS 47 ENODATA 48 ENODEV 49 ENOENT 50 ENOEXEC 51 ENOLCK 52 ENOLINK 53 ENOMEM "
    "54 ENOMSG 55 ENOPROTOOPT 56 ENOSPC 57 ENOSR 58 ENOSTR 59 ENOSYS 60 ENOTCONN 61 ENOTDIR "
    "62 ENOTEMPTY 63 ENOTSOCK 64 EOPNOTSUPP 65 ENOTTY 66 ENXIO 68 EOVERFLOW 69 EPERM 70 EPIPE "
    "71 EPROTO 72 EPROTONOSUPPORT 73 EPROTOTYPE 74 ERANGE 75 EROFS 77 ESPIPE 78 ESRCH 79 ESTALE "
    "80 ETIME 81 ETIMEDOUT 82 ETXTBSY 84 EXDEV";

TEST(VxError, EveryCodeStandsForItsSystemErrorBothWays) {
  std::map<int, std::string> names;  // on Linux ENOTSUP is EOPNOTSUPP
  std::istringstream listed(kCodes);
  int code = 0;
  for (std::string name; listed >> code >> name;) names[code] = name;
  for (code = -2; code < 120; ++code) {
    if (code == 9) continue;  // EALREADY's, below
    const int error = vx_error_to_errno(code);
    EXPECT_STREQ(error == 0 ? "" : strerrorname_np(error), names[code].c_str()) << code;
    EXPECT_EQ(vx_error_from_errno(error), error == 0 ? 0 : code);
  }
  EXPECT_EQ(vx_error_to_errno(9), EINPROGRESS);
  EXPECT_EQ(vx_error_from_errno(EALREADY), 29);
  int unlisted = 0;
  for (int error = 1; error < 200; ++error) unlisted += vx_error_from_errno(error) == 1;
  EXPECT_EQ(unlisted, 199 - 76) << "75 names and EALREADY are known";
  for (int error : {-1, 100000}) EXPECT_EQ(vx_error_from_errno(error), 1);
}

TEST(VxError, TheLastErrorKeepsItsKind) {
  const struct {
    int value, kind, code;
    const char* message;
  } cases[] = {{ENOENT, 1, 49, "No such file or directory"},
               {0, 1, 0, "Success"},
               {5, 0, 1, "Input/output error"},
               {HOST_NOT_FOUND, 2, 25, "Unknown host"},
               {TRY_AGAIN, 2, 8, "Host name lookup failure"},
               {0, 2, 0, "Resolver Error 0 (no error)"},
               {NO_RECOVERY, 2, 45, "Unknown server error"},
               {NO_DATA, 2, 47, "No address associated with name"},
               {9, 2, 1, "Unknown resolver error"},
               {5, 3, 2, "Unknown error"},
               {10004, 4, 2, "Unknown error"},
               {9999, 1, 1, "Unknown error 9999"}};
  for (const auto& [value, kind, code, message] : cases) {
    EXPECT_EQ(vx_error_set_last(value, kind)->value, value);
    EXPECT_EQ(vx_error_get_last(), code) << value << " of kind " << kind;
    char text[64];
    vx_error_get_message(text, sizeof text);
    EXPECT_STREQ(text, message);
  }
}

TEST(VxError, EachThreadHasItsOwnAndMessagesAreCut) {
  vx_error_set_last(EPERM, 1);
  in_threads(8, [](int i) {
    EXPECT_EQ(vx_error_get_last(), 0);
    EXPECT_EQ(vx_error_set_last(i, 1)->value, i);
  });
  EXPECT_EQ(vx_error_get_last(), 69);
  char text[] = "xxxxxxxx";
  vx_error_get_message(text, 0);
  vx_error_get_message(nullptr, 1);
  EXPECT_STREQ(text, "xxxxxxxx");
  vx_error_get_message(text, 4);
  EXPECT_EQ(std::string(text, 8), std::string("Ope\0xxxx", 8));
}

TEST(VxError, WithoutMemoryThereIsNoRecord) {
  std::thread([] {
    FailingMalloc after_thread_record(1);
    EXPECT_EQ(vx_error_set_last(EPERM, 1), nullptr);
    char text[32];
    vx_error_get_message(text, sizeof text);
    EXPECT_STREQ(text, "Unknown error");
  }).join();
}

}  // namespace

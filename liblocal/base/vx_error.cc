#include "liblocal/base/vx_error.h"

#include <netdb.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/text_sizes.h"

namespace {

// The system error of each library code, 0 for a code without one. The codes
// follow the alphabetical order of the names.
// clang-format off
constexpr int32_t kErrnoOfCode[] = {
    0,               0,               0,               E2BIG,           EACCES,            // 0
    EADDRINUSE,      EADDRNOTAVAIL,   EAFNOSUPPORT,    EAGAIN,          EINPROGRESS,       // 5
    EBADF,           EBADMSG,         EBUSY,           0,               ECHILD,            // 10
    ECONNABORTED,    ECONNREFUSED,    ECONNRESET,      EDEADLK,         EDESTADDRREQ,      // 15
    EDOM,            EDQUOT,          EEXIST,          EFAULT,          EFBIG,             // 20
    0,               EHOSTUNREACH,    EIDRM,           EILSEQ,          EINPROGRESS,       // 25
    EINTR,           EINVAL,          EIO,             EISCONN,         EISDIR,            // 30
    ELOOP,           EMFILE,          EMLINK,          EMSGSIZE,        EMULTIHOP,         // 35
    ENAMETOOLONG,    ENETDOWN,        ENETRESET,       ENETUNREACH,     ENFILE,            // 40
    0,               ENOBUFS,         ENODATA,         ENODEV,          ENOENT,            // 45
    ENOEXEC,         ENOLCK,          ENOLINK,         ENOMEM,          ENOMSG,            // 50
    ENOPROTOOPT,     ENOSPC,          ENOSR,           ENOSTR,          ENOSYS,            // 55
    ENOTCONN,        ENOTDIR,         ENOTEMPTY,       ENOTSOCK,        ENOTSUP,           // 60
    ENOTTY,          ENXIO,           0,               EOVERFLOW,       EPERM,             // 65
    EPIPE,           EPROTO,          EPROTONOSUPPORT, EPROTOTYPE,      ERANGE,            // 70
    EROFS,           0,               ESPIPE,          ESRCH,           ESTALE,            // 75
    ETIME,           ETIMEDOUT,       ETXTBSY,         0,               EXDEV              // 80
};
// clang-format on
constexpr int32_t kCodes = sizeof kErrnoOfCode / sizeof *kErrnoOfCode;
static_assert(kCodes == 85);

constexpr int32_t kCodeOfEalready = 9;  // of EALREADY, which has the code of EINPROGRESS
constexpr int32_t kCodeOfEinprogress = 29;

vx_last_error* own_record() {
  vx_orvane* thread = _vx_orvane_get();
  if (thread->last_error == nullptr) {
    auto* record = c_new<vx_last_error>();
    if (record != nullptr) record->kind = kVxErrorErrno;
    thread->last_error = record;
  }
  return thread->last_error;
}

}  // namespace

vx_last_error* vx_error_set_last(int32_t value, int32_t kind) {
  vx_last_error* record = own_record();
  if (record != nullptr) *record = {.kind = kind, .value = value};
  return record;
}

int32_t vx_error_get_last() {
  const vx_last_error* record = _vx_orvane_get()->last_error;
  if (record == nullptr) return 0;
  switch (record->kind) {
    case kVxErrorErrno:
      return vx_error_from_errno(record->value);
    case kVxErrorResolver:
      return vx_error_from_h_errno(record->value);
    case kVxErrorWin32:
    case kVxErrorWinsock:
      return kVxNullArgument;
    default:
      return kVxUnknownError;
  }
}

void vx_error_get_message(char* buffer, size_t size) {
  if (buffer == nullptr) return;
  const vx_last_error* record = own_record();
  const char* text = "Unknown error";
  char own[kErrorTextSize];  // for the texts that the system composes
  if (record != nullptr && (record->kind == kVxErrorErrno || record->kind == kVxErrorCarbon)) {
    text = strerror_r(record->value, own, sizeof own);
  } else if (record != nullptr && record->kind == kVxErrorResolver) {
    text = hstrerror(record->value);
  }
  snprintf(buffer, size, "%s", text);
}

int32_t vx_error_from_errno(int32_t error) {
  if (error == EALREADY) return kCodeOfEinprogress;
  for (int32_t code = 0; code < kCodes; ++code) {
    if (kErrnoOfCode[code] == error && code != kCodeOfEalready) return code;
  }
  return kVxUnknownError;
}

int32_t vx_error_to_errno(int32_t code) {
  return code >= 0 && code < kCodes ? kErrnoOfCode[code] : 0;
}

int32_t vx_error_from_h_errno(int32_t error) {
  switch (error) {
    case 0:
      return 0;
    case HOST_NOT_FOUND:
      return 25;
    case TRY_AGAIN:
      return 8;
    case NO_RECOVERY:
      return 45;
    case NO_DATA:
      return 47;
    default:
      return kVxUnknownError;
  }
}

int32_t _vx_error_fail(int32_t error) {
  vx_error_set_last(error, kVxErrorErrno);
  return vx_error_from_errno(error);
}

int32_t _vx_error_null_argument() {
  vx_error_set_last(EINVAL, kVxErrorErrno);
  return kVxNullArgument;
}

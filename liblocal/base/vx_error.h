// The last error of each thread, and the library's portable error codes.
//
// Every primitive of the runtime returns 0 or a library error code (0 to 84) and
// records the system error behind it as the calling thread's last error.
//
// Thread safety: all records are per thread; the conversions are pure.
#pragma once

#include <cstddef>
#include <cstdint>

#include "liblocal/base/vx_orvane.h"

/// Whose numbers the value of a last error follows.
enum VxErrorKind : int32_t {
  kVxErrorCarbon = 0,
  kVxErrorErrno = 1,     //!< system errors, as in errno
  kVxErrorResolver = 2,  //!< resolver errors, as in h_errno
  kVxErrorWin32 = 3,
  kVxErrorWinsock = 4,
};

// Library error codes that callers name. Each other code means one errno value.
constexpr int32_t kVxUnknownError = 1;  //!< an error without a code of its own
constexpr int32_t kVxNullArgument = 2;  //!< a null handle or required argument

/// Records `value` of `kind` as the calling thread's last error. Returns the
/// thread's record, which it keeps; null when it cannot be allocated.
vx_last_error* vx_error_set_last(int32_t value, int32_t kind);

/// The calling thread's last error as a library code; 0 when none was recorded.
/// Carbon status gives 1, Win32 and Winsock errors give 2, an unknown kind 1.
[[nodiscard]] int32_t vx_error_get_last();

/// Copies the text of the calling thread's last error into `buffer` of `size`
/// bytes, cut to fit and always terminated: the system's text for system errors
/// and Carbon status, the resolver's for resolver errors, else "Unknown error".
/// A null buffer or a size of 0 does nothing.
void vx_error_get_message(char* buffer, size_t size);

/// The library code of the system error `error`: 0 for 0, 1 for any that has no
/// code of its own.
[[nodiscard]] int32_t vx_error_from_errno(int32_t error);

/// The system error of the library code `code`; 0 for a code that has none.
[[nodiscard]] int32_t vx_error_to_errno(int32_t code);

/// The library code of the resolver error `error` (an h_errno value); 0 for 0, 1
/// for an unknown one.
[[nodiscard]] int32_t vx_error_from_h_errno(int32_t error);

/// Records the system error `error` as the last error and returns its code.
int32_t _vx_error_fail(int32_t error);

/// Records EINVAL for a null handle or argument and returns kVxNullArgument.
int32_t _vx_error_null_argument();

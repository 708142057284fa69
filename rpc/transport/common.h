// Descriptors, as the RPC runtime sees them.
#pragma once

#include <sys/time.h>

#include <cstdint>

/// The size of the process's descriptor table, at most 65536; asked of the system on
/// the first call and remembered. Thread safe.
[[nodiscard]] int32_t __brix_rpc_dtablesize();

/// Closes `descriptor`. Returns 0, or -1 with errno set. Thread safe.
int rpc_close(int descriptor);

/// `time` with less than a second of microseconds.
constexpr timeval rpc_normalized(timeval time) {
  return {time.tv_sec + time.tv_usec / 1000000, time.tv_usec % 1000000};
}

/// Waits until `descriptor` is ready for some of `events` (of poll), at most `time` (null:
/// no limit). Returns what it is ready for, 0 when the time is up, -1 with errno set. Thread
/// safe.
[[nodiscard]] int rpc_wait_for(int descriptor, int events, const timeval* time);

// Descriptors and buffer sizes, as the RPC runtime sees them.
#pragma once

#include <cstdint>

/// The size of the process's descriptor table, at most 65536; asked of the system on
/// the first call and remembered. Thread safe.
[[nodiscard]] int32_t __brix_rpc_dtablesize();

/// Closes `descriptor`. Returns 0, or -1 with errno set. Thread safe.
int rpc_close(int descriptor);

/// The size that a message buffer of `size` bytes gets: 4000 for less than 100, and a
/// multiple of 4.
[[nodiscard]] constexpr uint32_t rpc_buffer_size(uint32_t size) {
  constexpr uint32_t kSmallest = 100;
  constexpr uint32_t kReplacement = 4000;
  constexpr uint32_t kLargest = 0xFFFFFFFC;
  if (size < kSmallest) return kReplacement;
  return size > kLargest ? kLargest : (size + 3) & ~3U;
}

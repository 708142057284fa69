// The size of a transport's message buffers.
#pragma once

#include <cstdint>

/// The size that a message buffer of `size` bytes gets: 4000 for less than 100, and a
/// multiple of 4.
[[nodiscard]] constexpr uint32_t rpc_buffer_size(uint32_t size) {
  constexpr uint32_t kSmallest = 100;
  constexpr uint32_t kReplacement = 4000;
  constexpr uint32_t kLargest = 0xFFFFFFFC;
  if (size < kSmallest) return kReplacement;
  return size > kLargest ? kLargest : (size + 3) & ~3U;
}

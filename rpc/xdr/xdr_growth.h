// How much memory decoding allocates for what a peer declares.
#pragma once

#include <algorithm>
#include <cstdint>

/// How many of `wanted` items of `size` bytes each to allocate before the first is read. `size`
/// is not 0.
[[nodiscard]] inline uint32_t xdr_first_piece(uint32_t wanted, uint32_t size) {
  constexpr uint32_t kTrustedBytes = 65536;
  return std::min(wanted, std::max(kTrustedBytes / size, 1U));
}

/// How many items to have memory for once the first `held` of `wanted` were read.
[[nodiscard]] inline uint32_t xdr_next_piece(uint32_t held, uint32_t wanted) {
  return held > wanted / 2 ? wanted : held * 2;
}

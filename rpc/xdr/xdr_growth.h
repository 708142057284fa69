// How much memory decoding allocates for what a peer declares.
#pragma once

#include <algorithm>
#include <cstdint>

#include "rpc/xdr/xdr.h"

/// Tells in `*first` for how many of `wanted` items memory may be allocated before any
/// was read: for all, when the stream holds them; for some, when it cannot tell. False
/// when the stream does not hold them. An item takes at least `wire_size` bytes there
/// and `host_size` bytes of memory, neither 0.
[[nodiscard]] inline bool xdr_first_piece(XDR* xdrs, uint32_t wanted, uint32_t wire_size,
                                          uint32_t host_size, uint32_t* first) {
  constexpr uint32_t kTrustedBytes = 65536;
  int32_t remaining = xdrs->ops->get_remaining(xdrs);
  if (remaining == kXdrRemainingUnknown) {
    *first = std::min(wanted, std::max(kTrustedBytes / host_size, 1U));
    return true;
  }
  *first = wanted;
  return wanted <= static_cast<uint32_t>(remaining) / wire_size;
}

/// How many items there shall be memory for once the first `held` of `wanted` were read.
[[nodiscard]] inline uint32_t xdr_next_piece(uint32_t held, uint32_t wanted) {
  return held > wanted / 2 ? wanted : held * 2;
}

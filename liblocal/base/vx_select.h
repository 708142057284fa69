// Large descriptor sets (65536 bits) and the wait on them.
//
// Thread safety: a set is a plain value; distinct sets may be used from
// distinct threads.
#pragma once

#include <sys/time.h>

#include <algorithm>
#include <cstdint>

constexpr int kVxFdSetSize = 65536;  ///< descriptors that a set can name: 0 to 65535

/// A set of descriptors, one bit each.
struct vx_fd_set {
  uint64_t words[kVxFdSetSize / 64];
};

/// Empties `set`.
inline void VX_FD_ZERO(vx_fd_set* set) { *set = {}; }

/// Empties the part of `set` that a wait for descriptors up to `fd` reads. The whole set is 8 KiB.
///
/// REQUIRES: `fd` is 0 to 65535.
inline void VX_FD_ZERO_UP_TO(int fd, vx_fd_set* set) { std::fill_n(set->words, fd / 64 + 1, 0); }

/// Adds `fd` to `set`. A descriptor outside 0 to 65535 is not added.
inline void VX_FD_SET(int fd, vx_fd_set* set) {
  if (fd >= 0 && fd < kVxFdSetSize) set->words[fd / 64] |= uint64_t{1} << (fd % 64);
}

/// True when `fd` is in `set`; never for a descriptor outside 0 to 65535.
[[nodiscard]] inline bool VX_FD_ISSET(int fd, const vx_fd_set* set) {
  return fd >= 0 && fd < kVxFdSetSize && (set->words[fd / 64] >> (fd % 64) & 1) != 0;
}

/// Waits as the platform's select: until a descriptor below `count` is ready for
/// what its set asks, or `timeout` (null: no limit) has passed. Sets may be null.
/// The sets are replaced by what is ready.
///
/// REQUIRES: `count` <= 65536.
///
/// Returns the number of ready descriptors, 0 when the time is up, -1 with
/// `errno` set on failure.
[[nodiscard]] int vx_select(int count, vx_fd_set* readable, vx_fd_set* writable,
                            vx_fd_set* exceptional, timeval* timeout);

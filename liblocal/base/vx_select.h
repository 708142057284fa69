// Large descriptor sets (65536 bits) and the wait on them.
//
// Thread safety: a set is a plain value; distinct sets may be used from
// distinct threads.
#pragma once

#include <sys/time.h>

#include <climits>

constexpr int kVxFdSetSize = 65536;                              //!< descriptors: 0 to 65535
constexpr int kVxFdWordBits = CHAR_BIT * sizeof(unsigned long);  //!< of a word of a set

/// A set of descriptors, one bit each, in the words that select(2) reads.
struct vx_fd_set {
  unsigned long words[kVxFdSetSize / kVxFdWordBits];
};

/// Empties `set`.
inline void VX_FD_ZERO(vx_fd_set* set) { *set = {}; }

/// Adds `fd` to `set`. A descriptor outside 0 to 65535 is not added.
inline void VX_FD_SET(int fd, vx_fd_set* set) {
  if (fd < 0 || fd >= kVxFdSetSize) return;
  set->words[fd / kVxFdWordBits] |= 1UL << (fd % kVxFdWordBits);
}

/// True when `fd` is in `set`; never for a descriptor outside 0 to 65535.
[[nodiscard]] inline bool VX_FD_ISSET(int fd, const vx_fd_set* set) {
  return fd >= 0 && fd < kVxFdSetSize &&
         (set->words[fd / kVxFdWordBits] >> (fd % kVxFdWordBits) & 1) != 0;
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

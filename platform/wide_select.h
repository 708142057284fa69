// Waiting on more descriptors than a C library `fd_set` holds.
//
// The Linux kernel takes descriptor sets of any size; only the C library's
// `fd_set` type stops at 1024. A wide set is an array of 64-bit words, bit
// number n % 64 of word n / 64 standing for descriptor n, which is the layout
// the kernel reads.
#pragma once

#include <sys/time.h>

#include <cstdint>

/// Waits as select(2) does. `count` is one more than the highest descriptor of
/// interest; each set that is not null holds at least `count` bits and is
/// replaced by the descriptors that are ready. A null `timeout` waits without
/// limit; otherwise it is replaced by the time left.
///
/// Returns the number of ready descriptors, 0 when the time is up, -1 with
/// `errno` set on failure (EINTR when a signal came first). Thread safe.
[[nodiscard]] int wide_select(int count, uint64_t* readable, uint64_t* writable,
                              uint64_t* exceptional, timeval* timeout);

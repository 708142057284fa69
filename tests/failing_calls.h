// System calls of connections that fail on demand. A test program that links
// `failing_calls` has the connect, readv, recv, sendmsg, ppoll and select calls of its own
// objects and static libraries pass through here.
#pragma once

#include <sys/time.h>

#include <atomic>

namespace failing_calls {

struct Refusal {
  std::atomic<int> left;   // so many of the next calls fail
  std::atomic<int> error;  // with this
  std::atomic<int> most;   // buffers of one call until now
};

/// A connect that fails with EINTR goes on by itself, as the platform's does. Reads are
/// readv and recv.
inline Refusal connects, reads, writes, waits;

/// How long the last wait was to be.
inline timeval last_wait;

/// Lets the next `count` calls fail with `error`; waits with 0 find nothing, at once.
inline void refuse(Refusal& calls, int error, int count = 1) {
  calls.error = error;
  calls.left = count;
}

}  // namespace failing_calls

// The clock, and the service time: one instant that all look-ups within one piece of work use.
//
// Thread safety: all operations may be called from any thread; they share one service
// time.
#pragma once

#include <cstdint>

/// Seconds since 1970, now.
[[nodiscard]] int64_t vx_time();

/// The service time: vx_time of the first call since the process began or since
/// svc_time_reset. The caches of hosts expire by it.
[[nodiscard]] int64_t svc_time();

/// Makes svc_time read the clock anew. Code that begins new work calls it: the server loop for each
/// request, a client that connects, a process that starts another.
void svc_time_reset();

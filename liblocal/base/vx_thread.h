// Threads: identity and waiting. The library itself starts none. The other headers of this
// folder, the lowest layer of the runtime, have locks, counted handles, errors of the
// primitives, variable blocks, the exit list and memory.
//
// Operations that return int32_t give 0 or a library error code, with the system error
// recorded; a null handle gives 2 with EINVAL recorded. Handles are counted (vx_reference.h).
// Thread safe unless said otherwise.
#pragma once

#include <cstdint>

struct vx_thread;

/// The calling thread's identity record, made on first use; null when it cannot be allocated.
/// It is freed when the thread ends: take a vx_reference to keep it longer.
[[nodiscard]] vx_thread* vx_thread_self();

/// The library's id of `thread`: the process id in the upper 32 bits, the record's
/// reference slot in the lower. 0 with EINVAL recorded for null.
[[nodiscard]] uint64_t vx_thread_id(const vx_thread* thread);

/// Drops one reference; the last frees the record. Returns 0; 2 for a null handle;
/// 49 for a handle that is no longer registered.
int32_t vx_thread_destroy(vx_thread* thread);

/// 1 when both records name the same system thread, else 0 (with EINVAL recorded
/// when one is null).
[[nodiscard]] int32_t vx_thread_equal(const vx_thread* a, const vx_thread* b);

/// Never waits: gives 18 (EDEADLK) for the calling thread and 31 (EINVAL) for any other: its
/// creator joins it. `result` is not used.
int32_t vx_thread_join(const vx_thread* thread, void** result);

/// Sleeps `milliseconds`. A signal ends the sleep with 30 (EINTR).
int32_t vx_thread_sleep(uint32_t milliseconds);

/// Lets other threads run.
int32_t vx_thread_yield();

/// Initialises the thread layer; part of start-up. It does nothing, as the mutexes of the layer
/// are initialised statically.
void _vx_thr_libinit();

/// Sets the thread-layer-initialised flag and returns 1.
int32_t vx_thr_init();

/// The flag that vx_thr_init sets, 0 before.
[[nodiscard]] int32_t vx_thr_initd();

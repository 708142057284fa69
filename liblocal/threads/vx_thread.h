// Threads: identity, creation, waiting.
//
// Operations that return int32_t give 0 or a library error code, with the system
// error recorded; a null handle gives 2 with EINVAL recorded. Handles are counted
// (vx_reference.h). Thread safe unless said otherwise.
#pragma once

#include <cstdint>

struct vx_thread;

/// What a thread runs; its result goes to vx_thread_join.
using vx_thread_function = void* (*)(void* argument);

/// A thread that will run `function` with `argument` once started; null with the
/// error recorded when it cannot be made. Give it back with vx_thread_destroy.
[[nodiscard]] vx_thread* vx_thread_new(vx_thread_function function, void* argument);

/// Starts a new thread. A thread can be started once: later calls give 31.
int32_t vx_thread_start(vx_thread* thread);

/// Waits for the end of a started thread and stores its result unless `result` is
/// null. The calling thread itself gives 18 (EDEADLK); a thread that was not
/// started here, or has been joined, gives 31. One thread at a time may join.
int32_t vx_thread_join(vx_thread* thread, void** result);

/// Drops one reference. The last frees the record; a running thread that nobody
/// can join any more runs on by itself. Returns 0; 2 for a null handle; 49 for a
/// handle that is no longer registered.
int32_t vx_thread_destroy(vx_thread* thread);

/// The calling thread's identity record, made on first use; null when it cannot be
/// allocated. It belongs to the thread and goes with it: take a vx_reference to
/// keep it longer.
[[nodiscard]] vx_thread* vx_thread_self();

/// The library's id of `thread`: the process id in the upper 32 bits, the record's
/// reference slot in the lower. 0 with EINVAL recorded for null.
[[nodiscard]] uint64_t vx_thread_id(const vx_thread* thread);

/// 1 when both records name the same system thread, else 0 (with EINVAL recorded
/// when one is null).
[[nodiscard]] int32_t vx_thread_equal(const vx_thread* a, const vx_thread* b);

/// Sleeps `milliseconds`. A signal ends the sleep with 30 (EINTR).
int32_t vx_thread_sleep(uint32_t milliseconds);

/// Lets other threads run.
int32_t vx_thread_yield();

/// Initialises the thread layer's process-wide mutex, once; part of start-up.
void _vx_thr_libinit();

/// Sets the thread-layer-initialised flag and returns 1.
int32_t vx_thr_init();

/// The flag that vx_thr_init sets, 0 before.
[[nodiscard]] int32_t vx_thr_initd();

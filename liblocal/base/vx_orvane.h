// The per-thread library record ("orvane"): what the thread primitives keep for
// each thread. It stands on the C library, and xmalloc's pause, alone, so that
// everything above may record an error.
#pragma once

#include <cstdint>

struct vx_thread;

/// The last failure of a thread, as it was reported to vx_error_set_last.
struct vx_last_error {
  int32_t kind;   // one of VxErrorKind in vx_error.h
  int32_t value;  // the raw error number of that kind
};

/// The calling thread's library record.
struct vx_orvane {
  vx_thread* identity;        // null until vx_thread_self; holds one reference
  vx_last_error* last_error;  // null until an error is recorded; owned
};

/// The calling thread's record, made zeroed on first use; never null. When its
/// key or the record cannot be made, sends the process SIGTERM and, should it go on,
/// tries again every 2000 ms. The record goes when the thread ends, and the exiting
/// thread's record at process exit.
vx_orvane* _vx_orvane_get();

/// Names the function that gives up a record's identity when the record goes.
/// Thread safe.
///
/// REQUIRES: called before a record gets an identity.
void _vx_orvane_set_identity_release(void (*release)(vx_thread* identity));

// The per-thread library record ("orvane"): what the thread primitives keep for
// each thread. The lowest layer of the runtime: it stands on the C library alone,
// so that everything above may record an error.
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

/// The calling thread's record, made zeroed on first use; never null. Sends the
/// process SIGTERM when its key or the record cannot be made. The record goes when
/// the thread ends, and the exiting thread's record at process exit.
vx_orvane* _vx_orvane_get();

/// Names the function that gives up a record's identity when the record goes.
/// Thread safe; the thread layer calls it before it makes the first identity.
void _vx_orvane_set_identity_release(void (*release)(vx_thread* identity));

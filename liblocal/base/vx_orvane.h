// The per-thread library record ("orvane"): the thread's identity and its last error. Making
// it uses no primitive that records errors, so every primitive may record one.
#pragma once

#include <cstdint>

struct vx_thread;

/// The last failure of a thread, as it was reported to vx_error_set_last.
struct vx_last_error {
  int32_t kind;   //!< one of VxErrorKind in vx_error.h
  int32_t value;  //!< the raw error number of that kind
};

/// The calling thread's library record.
struct vx_orvane {
  vx_thread* identity;        //!< null until vx_thread_self; holds one reference
  vx_last_error* last_error;  //!< null until an error is recorded; owned
};

/// The calling thread's record, made zeroed on first use; never null. When its key or the
/// record cannot be made, it sends the process SIGTERM and, should the process ignore that,
/// tries again every 2000 ms. The record is freed when the thread ends, that of the exiting
/// thread at process exit.
vx_orvane* _vx_orvane_get();

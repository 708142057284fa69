// The library's process-wide levels: how much of its work is traced.
//
// Code that traces tests a level first, so that a silent program pays one load
// and formats nothing. The levels may change at any moment, by the debug command
// (dbgsignl.h); a reader sees the old level or the new one.
#pragma once

#include <atomic>

extern std::atomic<int> Debug;         // a debug line is written when this is at least its level
extern std::atomic<int> Vflag;         // verbosity of other modules
extern std::atomic<int> PrintDevInfo;  // how much other modules print about devices

static_assert(std::atomic<int>::is_always_lock_free, "a signal handler sets the levels");

/// Sets `Debug` to `level`. Thread safe.
void liblvars_set_debug(int level);

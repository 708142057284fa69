// The library's process-wide state: how much of its work is traced, and whether it is
// initialised.
//
// Code that traces tests a level first, so that a silent program formats nothing. The
// levels may change at any moment, by the debug command (dbgsignl.h); a reader sees the
// old level or the new one.
#pragma once

#include <atomic>

/// A debug line is written when this is at least its level.
extern std::atomic<int> Debug;
/// Verbosity of other modules.
extern std::atomic<int> Vflag;
/// How much other modules print about devices.
extern std::atomic<int> PrintDevInfo;

static_assert(std::atomic<int>::is_always_lock_free, "a signal handler sets the levels");

/// Sets `Debug` to `level`. Thread safe.
void liblvars_set_debug(int level);

/// 1 once _vxinit has run to its end, else 0. Thread safe.
[[nodiscard]] int vxinit_done();

/// Makes vxinit_done return 1: for _vxinit, at its end.
void _vx_set_initialised();

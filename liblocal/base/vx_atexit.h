// The exit list: functions that run at process exit, newest first.
//
// The list is run by a function that is registered with the system's atexit on first use. A
// function on the list may add further functions; they run next. Thread safe.
#pragma once

#include <cstdint>

struct vx_mutex;

/// Puts `function` at the front of the exit list. Returns 0 or a library error
/// code: 2 for null, 53 (ENOMEM) when it could not be added.
int32_t vx_atexit(void (*function)());

/// Removes `function` from the exit list. Returns 0 or a library error code: 2 for
/// null, 49 (ENOENT) when it is not on the list.
int32_t vx_unatexit(void (*function)());

/// Lets the list run at process exit again after vx_atexit_disable. Only the state
/// at process exit matters.
void vx_atexit_enable();

/// Keeps the list from running at process exit (in a forked child, say).
void vx_atexit_disable();

/// The mutex of the program's name, which is made together with the list.
[[nodiscard]] vx_mutex* _vx_progname_mutex();

// Debug signals: changing the levels of a running process, and holding a process
// at its start until a debugger has it.
//
// An operator writes a command (debug_command.h) into the debug command file and
// sends the process SIGUSR2; the process applies the command and deletes the
// file.
#pragma once

#include <atomic>

#include "liblocal/base/text_sizes.h"

constexpr int kDebugCommandLimit = 1024;  // bytes of a command file that are read

/// Path of the debug command file; set once by _vxinit, and empty, which names no
/// file, until then.
extern char Dbgcmdpath[kPathSize];

extern std::atomic<int> Debug_me;     // not 0 at the start: wait to be debugged
extern std::atomic<int> Force_debug;  // not 0 at the start: wait, whatever the program's name

/// The debug command handler: for SIGUSR2 reads at most kDebugCommandLimit bytes
/// of the debug command file, deletes it, and sets the level that the command
/// names. Any other signal changes nothing, nor does a file that cannot be opened or is
/// no regular file: a symbolic link or a FIFO is no debug command file. It is neither read
/// nor deleted, and nothing is waited for.
///
/// A change is told in one debug line unless `Debug` is negative; a negative
/// value changes nothing and is told when `Debug` is above 2.
///
/// Async-signal-safe throughout, and keeps `errno`. Therefore what standard output holds
/// in its buffer stays there, and the program's name is not converted to the locale.
void ondbgintr(int signal);

/// The wait at the start of the program of the path `path`. Returns at once
/// unless `Force_debug` is set, or `Debug_me` is and an item of the list in the
/// environment variable "KIV_DEBUGPROCS" (separated by commas) begins with the
/// program's base name, in any case. Otherwise says so every 10 seconds (when
/// `Debug` is 0 or more) until a debugger has cleared `Debug_me`.
void debug_check(const char* path);

// The debug signal, which changes the levels of a running process, and the wait for a
// debugger at the start of a process.
//
// An operator writes a command (debug_command.h) into the debug command file and sends the
// process SIGUSR2; the process applies the command and deletes the file.
#pragma once

#include <atomic>

#include "liblocal/base/text_sizes.h"

/// Bytes of a command file that are read.
constexpr int kDebugCommandLimit = 1024;

/// Path of the debug command file. _vxinit sets it; before that it is empty, which is no
/// file's name.
extern char Dbgcmdpath[kPathSize];

/// Not 0 at the start: wait for a debugger. The debugger clears it.
extern std::atomic<int> Debug_me;
/// Not 0 at the start: wait, whatever the program's name.
extern std::atomic<int> Force_debug;

/// The debug command handler: for SIGUSR2 reads at most kDebugCommandLimit bytes
/// of the debug command file, deletes it, and sets the level that the command
/// names. Any other signal changes nothing, nor does a file that cannot be opened or is
/// no regular file: a symbolic link or a FIFO is no debug command file. It is neither read
/// nor deleted, and nothing is waited for.
///
/// One debug line shows the change unless `Debug` is negative. A negative value changes
/// nothing; with `Debug` above 2 a debug line says so.
///
/// Async-signal-safe; keeps `errno`. Therefore it does not flush standard output, and it
/// does not convert the program's name to the locale.
void ondbgintr(int signal);

/// Waits for a debugger at the start of the program whose path is `path`, until `Debug_me`
/// is cleared. Every 10 seconds a debug line says so (when `Debug` is 0 or more).
///
/// Waits only when `Force_debug` is set, or when `Debug_me` is and an item of the list in
/// the environment variable "KIV_DEBUGPROCS" (separated by commas) begins with the
/// program's base name, in any case.
void debug_check(const char* path);

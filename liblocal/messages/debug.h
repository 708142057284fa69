// Debug lines: what a program reports about its work while it runs.
//
// A line is the message prefix (the time when time stamps are on, the program's name,
// ": ") and the formatted message. It is written to the debug file, or to standard error
// while none is open. `Debug` in liblvars.h is the level that decides.
//
// Thread safety: the printers may be called from any thread. Prefix and message are two
// writes, so lines of different threads may interleave between them. Opening and closing
// the debug file is for one thread at a time, while no other writes debug lines.
#pragma once

#include <cstdarg>
#include <cstdio>

#include "liblocal/messages/liblvars.h"

/// Writes one debug line, whatever the level: callers test `Debug` first.
[[gnu::format(printf, 1, 2)]] void debugprintf(const char* format, ...);

/// Writes one debug line when `Debug` is at least `level`.
[[gnu::format(printf, 2, 3)]] void dfprintf(int level, const char* format, ...);
[[gnu::format(printf, 2, 0)]] void vdfprintf(int level, const char* format, va_list arguments);

/// The platform's stdio declares a vdprintf with the same arguments, but writes to the
/// descriptor that is its first one. After this header the name means the one below.
#define vdprintf debug_vdprintf

/// As vdfprintf; a line of level 0 has "Diagnostic: " between prefix and message.
[[gnu::format(printf, 2, 0)]] void vdprintf(int level, const char* format, va_list arguments);

/// Writes the formatted message, without prefix, to standard error when `Debug`
/// is at least `level`. With a number other than -1 in the environment variable
/// "KIV_STRICT_LEVEL", of the levels above 0 only that one is written.
[[gnu::format(printf, 2, 3)]] void verbprint(int level, const char* format, ...);

/// Closes the debug file, if one is open, and from now on appends debug lines to the file
/// `path`, unbuffered. When that cannot be opened they are written to standard error. A
/// null or empty path changes nothing. With `Debug` above 1 a debug line says what happened.
void dfopen(const char* path);

/// Closes the debug file, if one is open. Debug lines are then written to standard error.
void dfclose();

/// The debug file, which the caller must not close, or null.
[[nodiscard]] FILE* dfopen_filehndl();

/// The descriptor that debug lines are now written to. Async-signal-safe.
[[nodiscard]] int debug_descriptor();

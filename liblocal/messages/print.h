// Messages: this room has the texts that users see, error records and debug lines. This
// header has messages with the program's name before them: errors on standard error,
// information on standard output. Formats are those of i18n_printf.h. Without memory
// nothing is printed.
//
// Thread safety: every operation may be called from any thread; a message is
// written in one piece.
#pragma once

#include <cstdarg>
#include <cstddef>

constexpr size_t kMessagePrefixSize = 666;  // a time stamp of 599, a blank, a name of 63, ": "

/// Writes the prefix of a message made now into `buffer`, kMessagePrefixSize
/// bytes: the time and a blank when time stamps are on, the program's name and
/// ": ". Returns `buffer`.
char* print_prefix(char* buffer);

/// print_prefix for a signal handler: async-signal-safe. Local time is what it was when
/// time stamps were switched on or a prefix was last written.
char* print_prefix_in_handler(char* buffer);

/// Starts messages with the time when `on` is not 0. Off at the start.
void print_timestamps(int on);

/// Writes the prefix and the formatted message to standard error, through the
/// accrual hook first.
[[gnu::format(printf, 1, 2)]] void printerr(const char* format, ...);
[[gnu::format(printf, 1, 0)]] void vprinterr(const char* format, va_list arguments);

/// Writes the prefix and the formatted message to standard output.
[[gnu::format(printf, 1, 2)]] void printinfo(const char* format, ...);
[[gnu::format(printf, 1, 0)]] void vprintinfo(const char* format, va_list arguments);

/// What printerr hands a message to before it writes it; the result is ignored.
using print_accrual_hook = int (*)(const char* text);

/// Hands every message of printerr but notices and warnings to `hook` from now
/// on; null ends that.
void print_set_accrual_hook(print_accrual_hook hook);

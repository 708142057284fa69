// Messages with the program's name before them: errors on standard error, information on
// standard output. Formats are those of i18n_printf.h. Without memory nothing is printed.
//
// Thread safety: every operation may be called from any thread. A message is written in
// one piece.
#pragma once

#include <cstdarg>
#include <cstddef>

/// Bytes of a prefix: a time stamp of 599, a blank, a name of 63, ": " and the terminator.
constexpr size_t kMessagePrefixSize = 666;

/// Writes the prefix of a message made now into `buffer`, of kMessagePrefixSize bytes: the
/// time and a blank when time stamps are on, the program's name and ": ". Returns `buffer`.
char* print_prefix(char* buffer);

/// print_prefix for a signal handler: async-signal-safe. Its time zone is that of the last
/// prefix, or of the time when time stamps were switched on.
char* print_prefix_in_handler(char* buffer);

/// Switches time stamps on, or off when `on` is 0. They are off at the start.
void print_timestamps(int on);

/// Writes the prefix and the formatted message to standard error, and passes them to the
/// accrual hook before that.
[[gnu::format(printf, 1, 2)]] void printerr(const char* format, ...);
[[gnu::format(printf, 1, 0)]] void vprinterr(const char* format, va_list arguments);

/// Writes the prefix and the formatted message to standard output.
[[gnu::format(printf, 1, 2)]] void printinfo(const char* format, ...);
[[gnu::format(printf, 1, 0)]] void vprintinfo(const char* format, va_list arguments);

/// Takes a message of printerr before it is written; the result is ignored.
using print_accrual_hook = int (*)(const char* text);

/// From now on printerr passes every message but notices and warnings to `hook`; to none
/// when that is null.
void print_set_accrual_hook(print_accrual_hook hook);

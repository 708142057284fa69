// The codeset of the process's locale, and the platform's converters between it and
// UTF-8.
//
// Each converter is opened on its first use, for the locale of that moment, and kept
// for the life of the process. One that cannot be opened ends the process with
// status 1 and a message on descriptor 2.
//
// Thread safety: the getters take no lock; what uses a descriptor locks it.
#pragma once

#include <iconv.h>

#include <atomic>

/// 1 until the locale's codeset has been found to be UTF-8, then 0.
extern std::atomic<int> Needs_conversion;

/// Whether the converter of get_ansi_codeset makes every character of ASCII itself; false
/// until it is open.
extern std::atomic<bool> Ansi_keeps_ascii;

/// Clears Needs_conversion where the locale's codeset is UTF-8, without opening a converter.
/// Call it after setlocale; otherwise the first use of a converter does it.
void learn_codeset();

/// The descriptor that converts from UTF-8 to the locale's codeset; null when that is
/// UTF-8.
[[nodiscard]] iconv_t get_ansi_codeset();

/// The descriptor that converts from the locale's codeset to UTF-8; null likewise.
[[nodiscard]] iconv_t get_utf8_codeset();

// Printing on streams: the way every user-visible text leaves the program.
//
// Texts inside the program are UTF-8. A stream takes the locale's codeset, unless it
// is marked as a stream of UTF-8 (utf8_marks.h). Formats are those of i18n_printf.h; on
// a marked stream they are the platform's.
//
// Thread safety: as the platform's stream printers, one call writes one piece.
#pragma once

#include <cstdarg>
#include <cstdio>

/// Formats a text, converts it to the locale's codeset and writes it on `stream`; on a
/// marked stream this is the platform's vfprintf. Returns the number of bytes written,
/// or a negative number on an output error; 0, with nothing written, when there is no
/// memory for the text. Without memory for its conversion it is written as it is.
[[gnu::format(printf, 2, 0)]] int vxvfprintf(FILE* stream, const char* format, va_list arguments);

/// vxvfprintf with the arguments given one by one.
[[gnu::format(printf, 2, 3)]] int vxfprintf(FILE* stream, const char* format, ...);

/// vxvfprintf on standard output.
[[gnu::format(printf, 1, 0)]] int vxvprintf(const char* format, va_list arguments);

/// vxfprintf on standard output.
[[gnu::format(printf, 1, 2)]] int vxprintf(const char* format, ...);

/// The platform's vsprintf.
[[gnu::format(printf, 2, 0)]] int vxvsprintf(char* buffer, const char* format, va_list arguments);

// Printing on streams: the way every user-visible text leaves the program.
//
// Thread safety: as the platform's stream printers, one call writes one piece.
#pragma once

#include <cstdarg>
#include <cstdio>

/// Formats as the platform's vfprintf and writes the text on `stream`. Returns
/// the number of bytes written, or a negative number on an output error.
[[gnu::format(printf, 2, 0)]] int vxvfprintf(FILE* stream, const char* format, va_list arguments);

/// vxvfprintf with the arguments given one by one.
[[gnu::format(printf, 2, 3)]] int vxfprintf(FILE* stream, const char* format, ...);

/// vxfprintf on standard output.
[[gnu::format(printf, 1, 2)]] int vxprintf(const char* format, ...);

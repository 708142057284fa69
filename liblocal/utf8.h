// UTF-8 text on streams: opening, marking, reading and closing them.
//
// A marked stream carries UTF-8 already and is read and written as it is.
#pragma once

#include <cstdio>

/// Opens the file named by the UTF-8 text `path` as fopen does. The stream is
/// not marked. Returns null with `errno` set on failure; the caller closes the
/// stream with vxfclose.
[[nodiscard]] FILE* utf8_fopen(const char* path, const char* mode);

/// Marks `stream` as carrying UTF-8, so that its text is never converted.
void utf8_fp(FILE* stream);

/// Reads one line of at most `size` - 1 bytes, its line end included, into
/// `buffer` and terminates it. A longer line continues with the next call.
/// Returns `buffer`, or null at the end of the file or on a read error.
[[nodiscard]] char* vxfgets(char* buffer, int size, FILE* stream);

/// Removes the mark of `stream`, if any, and closes it. Returns the result of
/// fclose.
int vxfclose(FILE* stream);

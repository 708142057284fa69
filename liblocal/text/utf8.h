// Text on streams. What a program reads and writes here is UTF-8; on the stream it is in the
// codeset of the locale, unless the stream is marked (utf8_marks.h): text on a marked stream
// passes as it is.
//
// Text that was read is not lost to a signal. A wait that a signal interrupts goes on, except
// on a marked stream before the first byte of a line: then the reader returns null with EINTR
// in `errno`. On a non-blocking descriptor a reader gets the characters that are there;
// without any, EAGAIN is in `errno`.
//
// Thread safety: as the platform's streams; each call locks the stream.
#pragma once

#include <cstdio>

#include "liblocal/base/text_sizes.h"
#include "liblocal/text/utf8_marks.h"

constexpr size_t kGetsSize = kMessageSize;  // bytes of the buffer of vxgets

/// Reads a line, its line end included, of at most `size` - 1 bytes on the stream into
/// `buffer` and terminates it. The rest of a longer line stays on the stream for the next
/// call, and so does what does not fit once it is UTF-8. Pieces of a converted line end
/// between characters; where the buffer holds no whole character, '?' is stored for it.
/// Returns `buffer`, or null at the end of the file, where `buffer` stays as it was, on a
/// read error, and without memory.
[[nodiscard]] char* vxfgets(char* buffer, int size, FILE* stream);

/// vxfgets whose bytes of 0x80 and above are, on a stream that is not marked, carried
/// as transparent bytes (mbt.h). When the line does not fit in that form, it has been read
/// all the same, and null is returned with ERANGE in `errno`.
[[nodiscard]] char* vx_fgetmbts(char* buffer, int size, FILE* stream);

/// Reads a line of standard input as vxfgets, without its line end.
///
/// REQUIRES: `buffer` has kGetsSize bytes; 1024 of them are used where standard input
/// is marked.
[[nodiscard]] char* vxgets(char* buffer);

/// Writes `text`. Returns a sum of non-negative results of fputs, 0 for an empty text
/// on a stream that is converted; -1 on an output error or for a null text.
int vxfputs(const char* text, FILE* stream);

/// vxfputs and a line end, on standard output.
int vxputs(const char* text);

/// The platform's fputs, for text that is in the locale's codeset already.
int ansi_fputs(const char* text, FILE* stream);

/// Removes the mark, if any, and closes as fclose, close and pclose do.
int vxfclose(FILE* stream);
int vxclose(int descriptor);
int vxpclose(FILE* stream);

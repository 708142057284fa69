// Text between UTF-8, which the library uses inside, and the codeset of the process's
// locale, which the platform uses.
//
// Where the locale's codeset is UTF-8 too, text passes as it is. Texts are
// NUL-terminated unless a length is asked for. Every operation keeps `errno`.
//
// The first conversion fixes the codeset for the life of the process (see
// codesets.h). When the lock of a direction cannot be made, a message is written on
// descriptor 2 and SIGTERM is raised; where the process survives, the text ends there.
//
// Thread safety: every operation may be called from any thread.
#pragma once

#include <cstddef>

/// Converts `input` from the locale's codeset to UTF-8 into `output` of `size` bytes.
/// Each byte that is not valid in the codeset becomes '?'. The text is always terminated,
/// and cut before a character that does not fit. A null or empty input gives an empty
/// text. Returns the number of bytes written without the NUL; but `size`, if at least 2, when
/// only the NUL left no room for the next character and the codeset is not UTF-8.
size_t utf8_mbs(char* output, const char* input, size_t size);

/// Converts `input` from UTF-8 to the locale's codeset into `output` of `size` bytes,
/// terminates and cuts as utf8_mbs. Returns the same, but `size` in any codeset, when only the
/// NUL left no room for a next character of two bytes or more. A transparent byte (see mbt.h)
/// becomes the byte that it represents; bytes that are not UTF-8 are copied; each character
/// that the codeset lacks becomes '?', but for Unicode's tags (U+E0000 to U+E007F), which the
/// platform's converters leave out. A broken transparent byte, 0xEF 0xA2 or 0xEF 0xA3 without
/// its third byte, ends the text, and 0 is returned.
size_t ansi_mbs(char* output, const char* input, size_t size);

/// ansi_mbs within 12288 bytes and then vx_mbstombts into `output` of `size` bytes.
/// Returns 1; 0 when there is nothing to convert or `output` is too small.
int vx_utf8tombts(char* output, const char* input, size_t size);

/// The number of characters of `text`, which is in the locale's codeset, by the
/// platform's mblen; 0 for a null or empty text, -1 when it is not valid. Needs no
/// conversion; not for two threads at once where the codeset has shift states.
[[nodiscard]] int ansi_mbslen(const char* text);

/// utf8_mbs / ansi_mbs into a buffer of the calling thread, which has at least `size`
/// bytes (and at least 6144). Returns it; it lasts until the thread's next call of the
/// same operation. Null with ENOMEM in `errno` when it cannot grow.
///
/// REQUIRES: `text` is no earlier result of the same operation.
[[nodiscard]] char* utf8encode(const char* text, size_t size);
[[nodiscard]] char* utf8decode(const char* text, size_t size);

/// Whether `text`, of `length` bytes in the locale's codeset, is known without the converter
/// to be the same in UTF-8.
[[nodiscard]] bool utf8_is_same(const char* text, size_t length);

/// Whether it is known without the converter that ansi_mbs leaves the `length` bytes of `text`
/// as they are. False when a NUL is among them.
[[nodiscard]] bool ansi_is_same(const char* text, size_t length);

/// What a conversion of part of a text did.
struct Utf8Progress {
  size_t consumed;  // bytes of the input
  size_t written;   // bytes of the output
};

/// Converts as utf8_mbs, but `length` bytes, which may be NUL, into at most `room` bytes
/// without a terminator. A character that does not fit is not consumed. When `more` text
/// follows elsewhere, neither is a character at the end that is not complete or that may
/// combine with what follows.
Utf8Progress utf8_mbs_part(char* output, size_t room, const char* input, size_t length, bool more);

/// Converts as ansi_mbs, likewise. A broken transparent byte ends
/// the output, and the rest of the input counts as consumed.
Utf8Progress ansi_mbs_part(char* output, size_t room, const char* input, size_t length);

// UTF-8 of one to six bytes, values up to 0x7FFFFFFF (RFC 2279). Forms longer than a
// value needs are invalid.
//
// Thread safety: pure functions. They never read past the bytes given, nor past a NUL.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr int kUtf8MaxLength = 6;  // bytes of the longest character

/// Decodes the character at `bytes`, of which `available` may be read, into `*value`
/// (may be null). Returns its length; 0 for a NUL; -1 when it is invalid or incomplete.
int utf8_mbtowc(wchar_t* value, const char* bytes, size_t available);

/// utf8_mbtowc without the value.
[[nodiscard]] int utf8_mblen(const char* bytes, size_t available);

/// Encodes `value` into `output`, which has room for 6 bytes; adds no NUL. Returns the
/// number of bytes; -1 for a value out of range; 0 for a null output.
int utf8_wctomb(char* output, wchar_t value);

/// The number of characters of `text`: 0 when it is null or empty, -1 when it is not valid
/// UTF-8.
[[nodiscard]] int utf8_mbslen(const char* text);

/// 1 when `text`, or all of the `count` bytes, is valid UTF-8, else 0.
[[nodiscard]] int is_utf8_mbs(const char* text);
[[nodiscard]] int is_utf8_mb(const char* bytes, size_t count);

/// The number of characters of `text` by their lead bytes alone, whatever follows them;
/// 0 when it is null or empty; -1 when the first byte of a character is no lead byte or the
/// last character is cut.
[[nodiscard]] int num_chars_in_utf8_str(const char* text);

/// The length that a character's lead byte announces, 1 to 6; 0 for a byte that leads
/// none.
[[nodiscard]] int utf8_lead_length(char lead);

/// The length of `text`, of `length` bytes, without a character at its end that is cut.
[[nodiscard]] size_t utf8_whole_length(const char* text, size_t length);

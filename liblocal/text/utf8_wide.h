// Whole strings between UTF-8 and wide characters, one value a wchar_t.
//
// Thread safety: pure functions.
#pragma once

#include <cstddef>

/// Decodes `input` into `output` of `capacity` wide characters, always terminated; a
/// byte that is not valid UTF-8 becomes '?'. Stops before the character that would leave
/// no room for the terminator. Returns the number of characters stored without it; 0
/// when an argument is null.
size_t utf8_mbstowcs(wchar_t* output, const char* input, size_t capacity);

/// Encodes `input` into `output` of `capacity` bytes, always terminated; a value that
/// cannot be encoded becomes '?'. Stops before the character that would leave no room
/// for the NUL. Without an output it counts, however many. Returns the number of bytes
/// without the NUL; 0 for a null input.
size_t utf8_wcstombs(char* output, const wchar_t* input, size_t capacity);

/// The whole of a string converted; the caller frees it. Null for a null string, and
/// with ENOMEM in `errno` without memory.
[[nodiscard]] char* wcs_to_utf8(const wchar_t* text);
[[nodiscard]] wchar_t* utf8_to_wcs(const char* text);

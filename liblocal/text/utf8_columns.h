// The terminal columns that UTF-8 text takes: one or two for each character.
//
// The width follows from a character's lead byte, and from up to two more of a
// character from U+F000 to U+FFFF. Two columns take U+3000 to U+FAFF, the fullwidth
// forms U+FF00 to U+FF5F and U+FFE0 to U+FFE7, and everything beyond U+FFFF; all
// others take one, a stray byte from 0x80 to 0xBF too. No locale is asked.
//
// Thread safety: plain functions of their arguments.
#pragma once

#include <cstddef>

/// Returns the columns, 1 or 2, of the character of `text` whose first byte has the
/// index `*index`, and moves `*index` to its last byte: 0 to 5 bytes on. The lead byte
/// alone decides how far, so at a character that the end of the text cuts off `*index`
/// is moved beyond that end. No byte beyond the terminator is read.
///
/// REQUIRES: `*index` is not beyond the terminator of `text`.
int utf8_char_columns(const char* text, size_t* index);

/// Returns the columns of the whole of `text`, a terminated string.
[[nodiscard]] size_t utf8_ttystrlen(const char* text);

// The library's own formatter: printf for texts in UTF-8.
//
// Formats are those of the platform's printf with these differences:
//
// - A "%s" measures its width and precision in terminal columns (utf8_columns.h), not
//   in bytes, and never prints part of a character. Blanks fill its width; of its flags
//   only a '-' that comes last counts, and a negative width fills nothing. A null
//   pointer prints "null".
// - One length letter counts: "%ld" takes a long, "%hd" an int, "%Lf" a long
//   double. "%lld", "%hhd", "%zu" and their kin do not exist, though the attribute below
//   lets a compiler take them: "%ll", "%hh" and "%z" print nothing, and what follows is text.
// - "%m" takes an int, as every other letter does, and prints the text of `errno` all the same.
// - Positional arguments ("%2$s", "%1$*2$d") may be mixed with others: the conversion
//   behind "%n$" takes the argument n + 1. A format with a '$' anywhere reaches 255
//   arguments; further ones read as 0 and "null". A skipped argument is taken as an int.
//   An argument used as two types has the type of its last use; the other uses read it as
//   0 or "null".
// - A negative precision is none, as in printf. A number in a width of INT_MIN prints nothing.
// - What the platform would read or write through an argument that is no pointer to it
//   ("%n", "%S", "%hs") prints nothing, and so does an 'L' before anything but a
//   floating-point conversion.
//
// Every other conversion is printed by the platform, so LC_NUMERIC counts.
//
// Thread safety: all state is the call's own.
#pragma once

#include <cstdarg>

/// Formats `format` with `arguments` and terminates the text. Returns its bytes without
/// the terminator. `arguments` is left as it was.
///
/// The text is written to `buffer`, which the caller makes large enough. With a null
/// `buffer` it is written to an area from malloc, whose address is stored through `result`
/// and which the caller frees; a conversion of any size has room there. When the area
/// cannot be had, null is stored and 0 returned. When it cannot grow, the text ends
/// before what has no room. With `result` null too, the text is only counted.
[[gnu::format(printf, 3, 0)]] int i18n_vsprintf(char* buffer, char** result, const char* format,
                                                va_list arguments);

/// i18n_vsprintf into `buffer`, with the arguments given one by one.
[[gnu::format(printf, 2, 3)]] int i18n_sprintf(char* buffer, const char* format, ...);

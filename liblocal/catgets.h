// Message catalogs: the text of a user-visible message, by set and number.
//
// Every text is written at its call site as an English default; a catalog, when
// one is open, replaces it. Texts are UTF-8.
#pragma once

#include <cstdint>

/// The open message catalog; -1 while none is open. Callers pass it to
/// vxcatgets and never change it.
extern int64_t Catd;

/// The text of message `number` of `set`: the catalog's, or `default_text`
/// itself when no catalog is open or it holds no such message. Keeps `errno`.
/// The caller neither frees nor changes the result. Thread safe.
[[nodiscard, gnu::format_arg(4)]] const char* vxcatgets(int64_t catalog, int32_t set,
                                                        int32_t number, const char* default_text);

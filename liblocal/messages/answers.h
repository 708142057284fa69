// The answers that a user gives to a question, in the letters of the message catalog.
//
// Thread safe.
#pragma once

/// 1 when `answer` begins with one of the two letters of that answer, else 0: in
/// English "y" or "Y", "n" or "N", "q" or "Q", "r" or "R".
[[nodiscard]] int is_yes(const char* answer);
[[nodiscard]] int is_no(const char* answer);
[[nodiscard]] int is_quit(const char* answer);
[[nodiscard]] int is_rename(const char* answer);

/// The upper-case letter of an answer, as a text to show. The caller must not free it.
[[nodiscard]] const char* i18n_char_yes();
[[nodiscard]] const char* i18n_char_no();
[[nodiscard]] const char* i18n_char_rename();

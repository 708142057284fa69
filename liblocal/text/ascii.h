// Characters and words of ASCII, the same in every locale. Async-signal-safe.
#pragma once

#include <algorithm>
#include <string_view>

/// True for '0' to '9'.
constexpr bool is_digit(char c) { return c >= '0' && c <= '9'; }

/// `c`, in lower case when it is a letter of ASCII.
constexpr char ascii_lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// True for the letters of ASCII.
constexpr bool is_letter(char c) { return ascii_lower(c) >= 'a' && ascii_lower(c) <= 'z'; }

/// 1 for a white-space character, else 0.
constexpr int vxisspace(int character) {
  return character == ' ' || (character >= '\t' && character <= '\r') ? 1 : 0;
}

/// Puts the letters of `text` in lower case.
constexpr void lower_ascii(char* text) {
  for (; *text != '\0'; ++text) *text = ascii_lower(*text);
}

/// True when the texts are the same but for the case of letters.
constexpr bool same_ignoring_case(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return ascii_lower(x) == ascii_lower(y); });
}

/// True when every byte of `text` is below 0x80, which is the same text in every codeset.
constexpr bool is_ascii_text(const char* text) {
  for (; *text != '\0'; ++text) {
    if (static_cast<unsigned char>(*text) >= 0x80) return false;
  }
  return true;
}

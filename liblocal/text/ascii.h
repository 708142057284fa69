// Characters of ASCII: what must not depend on the locale.
#pragma once

/// `c`, in lower case when it is a letter of ASCII.
constexpr char ascii_lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// True when every byte of `text` is below 0x80, which is the same text in every
/// codeset.
constexpr bool is_ascii_text(const char* text) {
  for (; *text != '\0'; ++text) {
    if (static_cast<unsigned char>(*text) >= 0x80) return false;
  }
  return true;
}

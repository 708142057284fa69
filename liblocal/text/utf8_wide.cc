#include "liblocal/text/utf8_wide.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "liblocal/text/utf8_codec.h"

size_t utf8_mbstowcs(wchar_t* output, const char* input, size_t capacity) {
  if (output == nullptr || input == nullptr || capacity == 0) return 0;
  size_t count = 0;
  for (; *input != '\0' && count + 1 < capacity; ++count) {
    int length = utf8_mbtowc(&output[count], input, kUtf8MaxLength);
    if (length == -1) {
      output[count] = L'?';
      length = 1;
    }
    input += length;
  }
  output[count] = L'\0';
  return count;
}

size_t utf8_wcstombs(char* output, const wchar_t* input, size_t capacity) {
  if (input == nullptr || (output != nullptr && capacity == 0)) return 0;
  size_t written = 0;
  for (; *input != L'\0'; ++input) {
    char character[kUtf8MaxLength] = {'?'};
    int encoded = utf8_wctomb(character, *input);
    const auto length = static_cast<size_t>(std::max(encoded, 1));
    if (output != nullptr) {
      if (written + length >= capacity) break;
      memcpy(output + written, character, length);
    }
    written += length;
  }
  if (output != nullptr) output[written] = '\0';
  return written;
}

char* wcs_to_utf8(const wchar_t* text) {
  if (text == nullptr) return nullptr;
  size_t size = kUtf8MaxLength * wcslen(text) + kUtf8MaxLength;
  auto* converted = static_cast<char*>(malloc(size));
  if (converted != nullptr) utf8_wcstombs(converted, text, size);
  return converted;
}

wchar_t* utf8_to_wcs(const char* text) {
  if (text == nullptr) return nullptr;
  // Never more characters than bytes.
  size_t capacity = strlen(text) + 1;
  auto* converted = static_cast<wchar_t*>(malloc(capacity * sizeof(wchar_t)));
  if (converted != nullptr) utf8_mbstowcs(converted, text, capacity);
  return converted;
}

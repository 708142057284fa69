#include "liblocal/text/utf8_codec.h"

#include <cstring>

namespace {

struct Form {
  uint8_t mask;    // of the lead byte
  uint8_t lead;    // the lead byte's bits under the mask
  uint32_t least;  // value that needs this many bytes
  uint32_t most;
};

constexpr Form kForms[kUtf8MaxLength] = {
    {0x80, 0x00, 0, 0x7F},
    {0xE0, 0xC0, 0x80, 0x7FF},
    {0xF0, 0xE0, 0x800, 0xFFFF},
    {0xF8, 0xF0, 0x10000, 0x1FFFFF},
    {0xFC, 0xF8, 0x200000, 0x3FFFFFF},
    {0xFE, 0xFC, 0x4000000, 0x7FFFFFFF},
};

bool is_continuation(char byte) { return (byte & 0xC0) == 0x80; }

}  // namespace

int utf8_lead_length(char lead) {
  for (int length = 1; length <= kUtf8MaxLength; ++length) {
    const Form& form = kForms[length - 1];
    if ((lead & form.mask) == form.lead) return length;
  }
  return 0;
}

int utf8_mbtowc(wchar_t* value, const char* bytes, size_t available) {
  if (bytes == nullptr || available == 0) return -1;
  int length = utf8_lead_length(*bytes);
  if (length == 0 || static_cast<size_t>(length) > available) return -1;
  const Form& form = kForms[length - 1];
  uint32_t decoded = static_cast<uint8_t>(*bytes) & static_cast<uint8_t>(~form.mask);
  for (int i = 1; i < length; ++i) {
    if (!is_continuation(bytes[i])) return -1;
    decoded = decoded << 6 | (bytes[i] & 0x3F);
  }
  if (decoded < form.least) return -1;
  if (value != nullptr) *value = static_cast<wchar_t>(decoded);
  return decoded == 0 ? 0 : length;
}

int utf8_mblen(const char* bytes, size_t available) {
  return utf8_mbtowc(nullptr, bytes, available);
}

int utf8_wctomb(char* output, wchar_t value) {
  if (output == nullptr) return 0;
  auto left = static_cast<uint32_t>(value);  // NOLINT(bugprone-signed-char-misuse): no char
  if (left > kForms[kUtf8MaxLength - 1].most) return -1;
  int length = 1;
  while (left > kForms[length - 1].most) ++length;
  for (int i = length - 1; i > 0; --i, left >>= 6) {
    output[i] = static_cast<char>(0x80 | (left & 0x3F));
  }
  output[0] = static_cast<char>(kForms[length - 1].lead | left);
  return length;
}

int utf8_mbslen(const char* text) {
  if (text == nullptr) return 0;
  int count = 0;
  for (; *text != '\0'; ++count) {
    // A character stops at the text's NUL, which continues none.
    int length = utf8_mblen(text, kUtf8MaxLength);
    if (length == -1) return -1;
    text += length;
  }
  return count;
}

int is_utf8_mbs(const char* text) { return utf8_mbslen(text) >= 0 ? 1 : 0; }

int is_utf8_mb(const char* bytes, size_t count) {
  while (count > 0) {
    int length = utf8_mblen(bytes, count);
    if (length < 0) return 0;
    size_t taken = length == 0 ? 1 : static_cast<size_t>(length);  // a NUL is a character too
    bytes += taken;
    count -= taken;
  }
  return 1;
}

int num_chars_in_utf8_str(const char* text) {
  if (text == nullptr) return 0;
  size_t left = strlen(text);
  int count = 0;
  for (; left > 0; ++count) {
    auto length = static_cast<size_t>(utf8_lead_length(*text));
    if (length == 0 || length > left) return -1;
    text += length;
    left -= length;
  }
  return count;
}

size_t utf8_whole_length(const char* text, size_t length) {
  for (size_t back = 1; back <= length; ++back) {
    const auto announced = static_cast<size_t>(utf8_lead_length(text[length - back]));
    if (announced > back) return length - back;
    if (announced != 0) break;
  }
  return length;
}

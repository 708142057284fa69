#include "liblocal/text/utf8_columns.h"

#include <cstdint>
#include <cstring>

namespace {

// The characters of three bytes that begin with 0xEF, U+F000 to U+FFFF. `rest` is
// behind that byte; its second byte is looked at only where the first one is none that
// could end the text.
int columns_behind_ef(const uint8_t* rest) {
  if (rest[0] >= 0x80 && rest[0] <= 0xAB) return 2;
  switch (rest[0]) {
    case 0xBC:
      return 2;
    case 0xBD:
      return rest[1] <= 0x9F ? 2 : 1;
    case 0xBF:
      return rest[1] >= 0xA0 && rest[1] <= 0xA7 ? 2 : 1;
    default:
      return 1;
  }
}

}  // namespace

int utf8_char_columns(const char* text, size_t* index) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(text) + *index;
  const uint8_t lead = bytes[0];
  if (lead <= 0xBF) return 1;
  *index += lead <= 0xDF ? 1 : lead <= 0xEF ? 2 : lead <= 0xF7 ? 3 : lead <= 0xFB ? 4 : 5;
  if (lead <= 0xE2) return 1;
  return lead == 0xEF ? columns_behind_ef(bytes + 1) : 2;
}

size_t utf8_ttystrlen(const char* text) {
  const size_t length = strlen(text);
  size_t columns = 0;
  for (size_t index = 0; index < length; ++index) {
    columns += static_cast<size_t>(utf8_char_columns(text, &index));
  }
  return columns;
}

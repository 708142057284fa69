#include "liblocal/text/mbt.h"

namespace {

constexpr uint8_t kLowHalf = 0xA2;   // second byte of 0x80 to 0xBF
constexpr uint8_t kHighHalf = 0xA3;  // second byte of 0xC0 to 0xFF
constexpr uint8_t kHalfBit = 0x40;   // what the third byte lacks in the high half
constexpr size_t kRoom = 4;          // bytes asked for each transparent byte

uint8_t byte_at(const char* at) { return static_cast<uint8_t>(*at); }

bool begins(const char* at, size_t available) {
  return available >= 2 && byte_at(at) == kMbtLead &&
         (byte_at(at + 1) == kLowHalf || byte_at(at + 1) == kHighHalf);
}

}  // namespace

int mbt_byte(const char* at, size_t available) {
  if (!begins(at, available)) return kMbtNone;
  if (available < kMbtLength || (byte_at(at + 2) & 0xC0) != 0x80) return kMbtBroken;
  return byte_at(at + 2) | (byte_at(at + 1) == kHighHalf ? kHalfBit : 0);
}

int vx_mbstombts(char* output, const char* input, size_t size) {
  if (output == nullptr || input == nullptr) return 0;
  for (; *input != '\0'; ++input) {
    const uint8_t byte = byte_at(input);
    const bool plain = byte < 0x80;
    if (size < (plain ? 1 : kRoom)) return 0;
    if (plain) {
      *output++ = *input;
      --size;
      continue;
    }
    *output++ = static_cast<char>(kMbtLead);
    *output++ = static_cast<char>(byte < 0xC0 ? kLowHalf : kHighHalf);
    *output++ = static_cast<char>(byte & ~kHalfBit);
    size -= kMbtLength;
  }
  if (size == 0) return 0;
  *output = '\0';
  return 1;
}

int vx_mbtstombs(char* output, const char* input, size_t size) {
  if (output == nullptr || input == nullptr) return 0;
  for (; *input != '\0'; --size) {
    if (size == 0) return 0;
    if (byte_at(input) < 0x80) {
      *output++ = *input++;
      continue;
    }
    int byte = mbt_byte(input, kMbtLength);
    if (byte < 0) return 0;
    *output++ = static_cast<char>(byte);
    input += kMbtLength;
  }
  if (size == 0) return 0;
  *output = '\0';
  return 1;
}

int containsMBT(const char* text) {
  if (text == nullptr) return 0;
  for (; *text != '\0'; ++text) {
    if (int byte = mbt_byte(text, kMbtLength); byte != kMbtNone) return byte != kMbtBroken ? 1 : 0;
  }
  return 0;
}

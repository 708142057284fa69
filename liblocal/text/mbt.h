// Transparent bytes: bytes that are no valid text, such as a file name in another
// codeset, carried through UTF-8 text and restored on the way out.
//
// A byte b from 0x80 to 0xFF travels as the code point U+F800 + b: the three bytes
// 0xEF 0xA2 b, or for b from 0xC0 on 0xEF 0xA3 and b without bit 0x40.
//
// Thread safety: pure functions.
#pragma once

#include <cstddef>
#include <cstdint>

/// Copies the raw bytes of `input` into `output` of `size` bytes, each byte from 0x80
/// on in transparent form, which asks for 4 free bytes. Returns 1; 0 when `output` is
/// too small and left without a NUL.
[[nodiscard]] int vx_mbstombts(char* output, const char* input, size_t size);

/// Restores the raw bytes of `input` into `output` of `size` bytes. Returns 1; 0 when
/// `input` holds anything but ASCII and transparent bytes or `output` is too small;
/// it is left without a NUL then.
[[nodiscard]] int vx_mbtstombs(char* output, const char* input, size_t size);

/// 1 when `text` holds a transparent byte; the first 0xEF 0xA2 or 0xEF 0xA3 decides.
[[nodiscard]] int containsMBT(const char* text);

constexpr size_t kMbtLength = 3;
constexpr uint8_t kMbtLead = 0xEF;  // the first of its bytes

/// The byte that is in transparent form at `at`, of which `available` bytes may be
/// read: 0x80 to 0xFF, kMbtNone when there is none, kMbtBroken when only its first two
/// bytes are there.
constexpr int kMbtNone = -1;
constexpr int kMbtBroken = -2;
[[nodiscard]] int mbt_byte(const char* at, size_t available);

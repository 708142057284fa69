// The units of XDR in memory, big-endian and without alignment: the one place where
// bytes are swapped.
#pragma once

#include <bit>
#include <concepts>
#include <cstring>

/// The big-endian integer at `from`.
template <std::unsigned_integral T>
[[nodiscard]] inline T xdr_load(const void* from) {
  static_assert(std::endian::native == std::endian::little && (sizeof(T) == 4 || sizeof(T) == 8));
  T value;
  memcpy(&value, from, sizeof value);
  if constexpr (sizeof(T) == 4) return __builtin_bswap32(value);
  return static_cast<T>(__builtin_bswap64(value));
}

/// Writes `value` big-endian at `to`.
template <std::unsigned_integral T>
inline void xdr_store(void* to, T value) {
  T swapped = xdr_load<T>(&value);
  memcpy(to, &swapped, sizeof swapped);
}

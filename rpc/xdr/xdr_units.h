// The units of XDR in memory, big-endian and without alignment: the one place where
// bytes are swapped.
#pragma once

#include <bit>
#include <concepts>
#include <cstdint>
#include <cstring>

/// `value` from the host's byte order to big-endian, or back.
template <std::unsigned_integral T>
[[nodiscard]] inline T xdr_swap(T value) {
  static_assert(sizeof(T) == 4 || sizeof(T) == 8);
  if constexpr (std::endian::native == std::endian::big) return value;
  if constexpr (sizeof(T) == 8) return static_cast<T>(__builtin_bswap64(value));
  return static_cast<T>(__builtin_bswap32(static_cast<uint32_t>(value)));
}

/// The big-endian integer at `from`.
template <std::unsigned_integral T>
[[nodiscard]] inline T xdr_load(const void* from) {
  T value;
  memcpy(&value, from, sizeof value);
  return xdr_swap(value);
}

/// Writes `value` big-endian at `to`.
template <std::unsigned_integral T>
inline void xdr_store(void* to, T value) {
  const T swapped = xdr_swap(value);
  memcpy(to, &swapped, sizeof swapped);
}

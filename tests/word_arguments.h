// An argument list of any length, made of words in memory.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstring>

/// Starts `list` as the x86-64 ABI has it once no register is left: each argument takes the
/// next word of `words`, a long double the next two at an even address.
inline void start_word_arguments(va_list list, const uint64_t* words) {
  const struct {
    uint32_t integer_registers_used = 6 * 8;
    uint32_t all_registers_used = 6 * 8 + 8 * 16;
    const uint64_t* in_memory;
    const void* registers = nullptr;
  } state = {.in_memory = words};
  static_assert(sizeof state == sizeof(va_list));
  memcpy(list, &state, sizeof state);
}

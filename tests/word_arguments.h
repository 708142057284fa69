// The formatter with an argument list of any length, made of words in memory.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "liblocal/text/i18n_printf.h"

// The formats are tables, made up, or wrong on purpose.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

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

/// The text that i18n_vsprintf makes in an area of its own.
inline std::string in_own_area(const std::string& format, va_list arguments) {
  char* area = nullptr;
  const int length = i18n_vsprintf(nullptr, &area, format.c_str(), arguments);
  if (area == nullptr || area[length] != '\0') abort();
  const std::string text(area, static_cast<size_t>(length));
  free(area);
  return text;
}

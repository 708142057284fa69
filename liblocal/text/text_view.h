// Parts of a text. What std::string_view::substr and copy would do, without their
// exception, whose code alone is several times the size of the command.
//
// Async-signal-safe.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

/// At most `count` characters of `text` from its character `from` on; none when that
/// lies behind the end.
[[nodiscard]] constexpr std::string_view text_part(std::string_view text, size_t from,
                                                   size_t count = std::string_view::npos) {
  from = std::min(from, text.size());
  return {text.data() + from, std::min(count, text.size() - from)};
}

/// Copies at most `count` characters of `text` to `to`, without a terminator. Returns
/// how many.
constexpr size_t text_copy(std::string_view text, char* to, size_t count) {
  count = std::min(count, text.size());
  std::copy_n(text.data(), count, to);
  return count;
}

/// Copies `text` to `to`, of `size` bytes, cut to fit and terminated; without room for
/// a terminator nothing.
constexpr void text_copy_cut(std::string_view text, char* to, size_t size) {
  if (size != 0) to[text_copy(text, to, size - 1)] = '\0';
}

// The debug command's parser on arbitrary bytes: what it returns lies within the
// text, and writing it out again means the same.
#undef NDEBUG
#include <cassert>
#include <climits>
#include <cstdint>
#include <string>

#include "liblocal/debug_command.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(data, data + size);
  auto command = parse_debug_command(text);
  if (!command) return 0;
  assert(text.find(command->name) != std::string::npos);
  assert(text.find(command->value_text) != std::string::npos);
  assert(command->value_text.find_first_not_of("-0123456789") == std::string_view::npos);

  auto again =
      parse_debug_command(std::string(command->name) + "=" + std::to_string(command->value));
  assert(again && again->name == command->name && again->value == command->value);
  return 0;
}

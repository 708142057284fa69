// The debug command's parser on arbitrary bytes: what it returns lies within the
// text, and written out again it means the same.
#undef NDEBUG
#include <cassert>
#include <cstdint>
#include <string>

#include "liblocal/startup/debug_command.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  auto command = parse_debug_command(text);
  if (!command) return 0;
  for (std::string_view part : {command->name, command->value_text}) {
    assert(part.begin() >= text.begin() && part.end() <= text.end());
  }
  assert(command->value_text.find_first_not_of("-0123456789") == std::string_view::npos);

  const std::string line = std::string(command->name) + "=" + std::to_string(command->value);
  auto again = parse_debug_command(line);
  assert(again && again->name == command->name && again->value == command->value);
  return 0;
}

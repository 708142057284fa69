// The debug command's parser: what it returns means the same when it is written out again.
#include "fuzz/harness.h"
#include "liblocal/startup/debug_command.h"

void check_input(std::string_view text) {
  const auto command = parse_debug_command(text);
  if (!command) return;
  const std::string line = std::string(command->name) + "=" + std::to_string(command->value);
  const auto again = parse_debug_command(line);
  assert(again && again->name == command->name && again->value == command->value);
}

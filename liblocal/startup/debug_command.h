// The debug command: the one line, such as "Debug = 3", that an operator writes
// into the debug command file to change a level of a running process.
#pragma once

#include <optional>
#include <string_view>

/// The parts of a debug command.
struct debug_command {
  std::string_view name;        // letters, perhaps none; part of the text that was parsed
  std::string_view value_text;  // an optional '-' and digits, perhaps none; likewise
  int value;                    // 0 without digits; what an int cannot hold becomes its limit
};

/// Takes `text` apart: a name of ASCII letters, '=', a value. Blanks, tabs and
/// newlines may stand before each; whatever follows the value is ignored. A name
/// that ends the text has the value 0.
///
/// Returns nothing when something other than '=' follows the name, or when the
/// text ends after the '='. Async-signal-safe.
[[nodiscard]] std::optional<debug_command> parse_debug_command(std::string_view text);

// The debug command: the assignment, such as "Debug = 3", that an operator writes into the
// debug command file to change a level of a running process.
#pragma once

#include <optional>
#include <string_view>

/// The parts of a debug command.
struct debug_command {
  std::string_view name;        //!< Letters, perhaps none: a part of the parsed text.
  std::string_view value_text;  //!< A '-' or none, digits or none: likewise.
  int value;                    //!< 0 without digits; never beyond INT_MAX or -INT_MAX.
};

/// Parses `text`: a name of ASCII letters, '=', a value. Blanks, tabs and newlines before
/// each of them are skipped; whatever follows the value is ignored. When the text ends
/// after the name, the value is 0.
///
/// Returns nothing when something other than '=' follows the name, or when the text ends
/// after the '='. Async-signal-safe.
[[nodiscard]] std::optional<debug_command> parse_debug_command(std::string_view text);

// What every harness has: assertions in every build, and its input as text.
#pragma once

#undef NDEBUG
#include <cassert>
#include <string>
#include <string_view>

/// Defined by each harness: the check of one input. The bytes behind it are not to be read,
/// which the address sanitizer sees.
void check_input(std::string_view input);

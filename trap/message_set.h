// The catalog set of the command's messages; their texts stand where they are printed.
#pragma once

#include <cstdint>

constexpr int32_t kMessageSet = 41;

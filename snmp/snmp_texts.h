// Where the engine's texts stand.
#pragma once

#include <cstdint>

constexpr int32_t kSnmpMessageSet = 41;  // their set in the message catalog

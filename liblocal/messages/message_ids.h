// Numbers of messages for logging.
#pragma once

#include <cstdint>

/// The facility `facility` as log entries carry it: with bit 0x800 set.
constexpr uint32_t mc_facility_id(uint32_t facility) { return facility | 0x800; }

/// Message `number` of `facility`: the facility id, taken as a signed 32-bit value,
/// times 65536, plus `number`.
constexpr int64_t mc_message_id(uint32_t facility, int32_t number) {
  return int64_t{static_cast<int32_t>(mc_facility_id(facility))} * 65536 + number;
}

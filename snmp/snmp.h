// SNMPv1 messages (RFC 1157): PDUs and bindings to bytes and back.
//
// Builders return a position, 0 or -1 as each says, print nothing and never
// write past the room they are given. Thread safe, but for the messages that
// snmp_parse_packet prints.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <span>

struct snmp_pdu;
struct snmp_session;

constexpr int32_t kSnmpMaxPacket = 4500;    // bytes of the largest message
constexpr int32_t kSnmpMaxCommunity = 128;  // buffer for a received one, zero byte included

/// What became of a received message.
enum class SnmpParse {
  kDone,     // decoded
  kDropped,  // refused by the session's auth_hook
  kMangled,  // malformed, or no memory to hold it
};

/// Writes one binding at `at` and returns the position past it, or null when `at` is null,
/// `*room` cannot hold it, the name is too long or `type` is not a value's tag. `value` is as
/// in snmp_var, `value_length` its bytes.
[[nodiscard]] uint8_t* snmp_build_var_op(uint8_t* at, const uint64_t* name,
                                         const int32_t* name_length, uint8_t type,
                                         int32_t value_length, const void* value, int32_t* room);

/// Reads one binding at `at` and returns the position past it, or null when it is malformed;
/// bytes behind its value are skipped. `name` holds `*name_length` entries on entry. The value
/// is left undecoded: `*value` is where its item starts, `*type` its tag and `*value_length`
/// its content bytes.
[[nodiscard]] const uint8_t* snmp_parse_var_op(const uint8_t* at, uint64_t* name,
                                               int32_t* name_length, uint8_t* type,
                                               int32_t* value_length, const uint8_t** value,
                                               int32_t* left);

/// Builds the message of `pdu` with the session's community at `packet`.
/// `*length` is the room there on entry and the message's length on return.
/// Returns 0, or -1 when the message cannot be built or does not fit.
[[nodiscard]] int snmp_build_packet(const snmp_session* session, const snmp_pdu* pdu,
                                    uint8_t* packet, int32_t* length);

/// Builds a trap message with one binding and the community "public" in one
/// call. `*length` is the room at `packet` on entry and the message's length on
/// return. `agent_address` is in network byte order, `time_stamp` in hundredths
/// of a second. Returns the message's length, or 0 on failure.
[[nodiscard]] int32_t snmp_build_trap(uint8_t* packet, int32_t* length, const uint64_t* enterprise,
                                      int32_t enterprise_length, in_addr_t agent_address,
                                      long generic_trap, long specific_trap,
                                      unsigned long time_stamp, const uint64_t* name,
                                      int32_t name_length, uint8_t type, int32_t value_length,
                                      const void* value);

/// Decodes one received message into `pdu`, a new one whose address is the
/// sender's. `session` gives the auth_hook. A wrong version and a binding of an
/// unknown type are reported on standard error and decoding continues. Whatever
/// the result, `pdu` is whole and the caller's to release.
[[nodiscard]] SnmpParse snmp_parse_packet(const snmp_session* session, snmp_pdu* pdu,
                                          std::span<const uint8_t> packet);

/// Moves the `count` bytes at `at` by `distance`, which may be negative; the two
/// ranges may overlap.
void shift_bytes(uint8_t* at, int32_t count, int32_t distance);

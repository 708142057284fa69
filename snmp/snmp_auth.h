// The wrapper of every SNMP message: a SEQUENCE of version, community and PDU
// (RFC 1157, section 4). Thread safe.
#pragma once

#include <cstdint>

/// Writes the message header, the version and the community; the PDU of `pdu_length` bytes
/// is the caller's to write at the position returned. Returns null when `*room` cannot hold
/// the three.
[[nodiscard]] uint8_t* snmp_auth_build(uint8_t* at, int32_t* room, const uint8_t* community,
                                       const int32_t* community_length, const long* version,
                                       int32_t pdu_length);

/// Reads the wrapper and returns the first byte of the PDU; `*left` becomes the bytes of the
/// message from there on. The community is stored in `community` with a zero byte after it;
/// `*community_length` is the buffer's size on entry, zero byte included, and the community's
/// length on return. Returns null for a malformed wrapper and for a community that does not
/// fit.
[[nodiscard]] const uint8_t* snmp_auth_parse(const uint8_t* at, int32_t* left, uint8_t* community,
                                             int32_t* community_length, long* version);

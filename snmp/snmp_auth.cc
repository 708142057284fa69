#include "snmp/snmp_auth.h"

#include "snmp/asn1.h"

namespace {

constexpr int32_t kIntItemRoom = 6;  // tag, length and 4 bytes: the longest integer item

// Bytes of a length from 0 to 65535.
int32_t length_bytes(int32_t length) {
  uint8_t bytes[3];
  int32_t room = sizeof bytes;
  return asn_build_length(bytes, &room, length) != nullptr
             ? static_cast<int32_t>(sizeof bytes) - room
             : 0;
}

}  // namespace

uint8_t* snmp_auth_build(uint8_t* at, int32_t* room, const uint8_t* community,
                         const int32_t* community_length, const long* version, int32_t pdu_length) {
  if (*community_length < 0 || *community_length > kAsnMaxBuildLength) return nullptr;
  uint8_t version_item[kIntItemRoom];
  int32_t version_room = kIntItemRoom;
  uint8_t* version_end =
      asn_build_int(version_item, &version_room, kAsnInteger, version, sizeof *version);
  auto version_length = static_cast<int32_t>(version_end - version_item);
  int32_t community_item = 1 + length_bytes(*community_length) + *community_length;

  at = asn_build_header(at, room, kAsnSequence, version_length + community_item + pdu_length);
  if (at == nullptr) return nullptr;
  at = asn_build_int(at, room, kAsnInteger, version, sizeof *version);
  if (at == nullptr) return nullptr;
  return asn_build_string(at, room, kAsnOctetString, community, *community_length);
}

const uint8_t* snmp_auth_parse(const uint8_t* at, int32_t* left, uint8_t* community,
                               int32_t* community_length, long* version) {
  uint8_t tag = 0;
  at = asn_parse_header(at, left, &tag);
  if (at == nullptr || tag != kAsnSequence) return nullptr;
  at = asn_parse_int(at, left, &tag, version, sizeof *version);
  if (at == nullptr || tag != kAsnInteger) return nullptr;
  *community_length -= 1;  // the zero byte's place
  at = asn_parse_string(at, left, &tag, community, community_length);
  if (at == nullptr || tag != kAsnOctetString) return nullptr;
  community[*community_length] = 0;
  return at;
}

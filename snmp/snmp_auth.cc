#include "snmp/snmp_auth.h"

#include <algorithm>

#include "snmp/asn1.h"

namespace {

// Bytes of a whole item with `length` content bytes.
int32_t item_size(int32_t length) { return asn_header_size(length) + length; }

}  // namespace

uint8_t* snmp_auth_build(uint8_t* at, int32_t* room, const uint8_t* community,
                         const int32_t* community_length, const long* version, int32_t pdu_length) {
  // A community that is too long is refused below; here it must not overflow.
  int32_t community_size = item_size(std::min(*community_length, kAsnMaxBuildLength));
  int32_t length = item_size(asn_int_size(*version)) + community_size + pdu_length;
  at = asn_build_header(at, room, kAsnSequence, length);
  at = asn_build_int(at, room, kAsnInteger, version, sizeof *version);
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

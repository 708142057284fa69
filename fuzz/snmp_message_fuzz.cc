// A datagram decoded as a message. What can be built of it stays the same, decoded once more.
#include <vector>

#include "fuzz/harness.h"
#include "snmp/snmp.h"
#include "snmp/snmp_pdu.h"
#include "snmp/snmp_session.h"

using Bytes = std::vector<uint8_t>;  // allocated to its exact size, so over-reads are seen

static snmp_session session = {};

static unique_pdu decoded(const Bytes& packet) {
  unique_pdu pdu(snmp_pdu_create(0));
  if (snmp_parse_packet(&session, pdu.get(), packet) != SnmpParse::kDone) pdu.reset();
  return pdu;
}

// Empty for values of unknown types and for what is longer than we write.
static Bytes built(const unique_pdu& pdu) {
  Bytes packet(kSnmpMaxPacket);
  int32_t length = kSnmpMaxPacket;
  if (snmp_build_packet(&session, pdu.get(), packet.data(), &length) != 0) return {};
  packet.resize(static_cast<size_t>(length));
  return packet;
}

void check_input(std::string_view datagram) {
  const unique_pdu pdu = decoded({datagram.begin(), datagram.end()});
  if (pdu == nullptr) return;
  unique_pdu(snmp_fix_pdu(pdu.get(), kSnmpGetRequest));
  const Bytes message = built(pdu);
  assert(message.empty() || built(decoded(message)) == message);
}

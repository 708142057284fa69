// A datagram decoded as a message. What can be built of it stays the same, decoded once more.
#undef NDEBUG
#include <cassert>
#include <cstdio>
#include <vector>

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

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  stderr = fopen("/dev/null", "w");  // the engine's reports; the fuzzer keeps its own stream
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Bytes packet(data, data + size);
  const unique_pdu pdu = decoded(packet);
  if (pdu == nullptr) return 0;
  unique_pdu(snmp_fix_pdu(pdu.get(), kSnmpGetRequest));
  const Bytes message = built(pdu);
  assert(built(unique_pdu(snmp_clone_pdu(pdu.get()))) == message);
  assert(message.empty() || built(decoded(message)) == message);
  return 0;
}

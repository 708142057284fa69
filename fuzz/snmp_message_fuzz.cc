// A whole datagram decoded as a message, with and without a filter. What decodes
// comes back the same after being built and decoded again.
#undef NDEBUG
#include <cassert>
#include <cstdio>
#include <vector>

#include "snmp/asn1.h"
#include "snmp/snmp.h"
#include "snmp/snmp_pdu.h"
#include "snmp/snmp_session.h"

namespace {

// Looks at all that it is shown, and drops messages with a community of odd length.
const uint8_t* filter(const uint8_t* pdu, int32_t* left, const uint8_t* community, int32_t length) {
  assert(*left >= 0 && length < kSnmpMaxCommunity && community[length] == 0);
  std::vector<uint8_t> seen(pdu, pdu + *left);
  return length % 2 == 0 ? pdu : nullptr;
}

unique_pdu decoded(std::span<const uint8_t> packet, snmp_auth_hook hook) {
  snmp_session session = {};
  session.auth_hook = hook;
  unique_pdu pdu(snmp_pdu_create(0));
  if (snmp_parse_packet(&session, pdu.get(), packet) != SnmpParse::kDone) pdu.reset();
  return pdu;
}

bool is_number(uint8_t type) {
  return type == kAsnInteger || (type >= kSnmpCounter && type <= kSnmpTimeTicks);
}

// All of a PDU in one row; of a number the low 32 bits, which travel.
std::vector<uint64_t> fields_of(const snmp_pdu& pdu) {
  std::vector<uint64_t> all = {pdu.agent_address};
  for (long number :
       {static_cast<long>(pdu.command), pdu.request_id, pdu.error_status, pdu.error_index,
        pdu.generic_trap, pdu.specific_trap, static_cast<long>(pdu.time_stamp)}) {
    all.push_back(static_cast<uint32_t>(number));
  }
  all.insert(all.end(), pdu.enterprise, pdu.enterprise + pdu.enterprise_length);
  for (const snmp_var* var = pdu.variables; var != nullptr; var = var->next) {
    all.push_back(var->type);
    all.insert(all.end(), var->name, var->name + var->name_length);
    const auto* bytes = static_cast<const uint8_t*>(var->value);
    all.insert(all.end(), bytes, bytes + (is_number(var->type) ? 4 : var->value_length));
  }
  return all;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  stderr = fopen("/dev/null", "w");  // the engine's reports; the fuzzer keeps its own stream
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<uint8_t> packet(data, data + size);  // exactly sized: over-reads are seen
  decoded(packet, filter);
  unique_pdu pdu = decoded(packet, nullptr);
  if (pdu == nullptr) return 0;
  unique_pdu clone(snmp_clone_pdu(pdu.get()));
  assert(fields_of(*clone) == fields_of(*pdu));
  unique_pdu fixed(snmp_fix_pdu(pdu.get(), kSnmpGetRequest));

  snmp_session session = {};
  uint8_t rebuilt[kSnmpMaxPacket];
  int32_t length = sizeof rebuilt;
  // Fails for values of unknown types and for what is longer than we write.
  if (snmp_build_packet(&session, pdu.get(), rebuilt, &length) != 0) return 0;
  unique_pdu again = decoded({rebuilt, static_cast<size_t>(length)}, nullptr);
  assert(again != nullptr && fields_of(*again) == fields_of(*pdu));
  return 0;
}

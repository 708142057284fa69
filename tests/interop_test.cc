// Messages that the engine builds, read by an independent decoder.
#include <arpa/inet.h>

#include <iterator>

#include "snmp/asn1.h"
#include "snmp/snmp.h"
#include "snmp/snmp_client.h"
#include "snmp/snmp_pdu.h"
#include "snmp/snmp_session.h"
#include "tests/decoder.h"

namespace {

const uint64_t kName[] = {1, 3, 6, 1, 2, 1, 1, 1, 0};
const uint64_t kWide[] = {1, 3, 127, 128, 16384, 4294967295};

template <typename T>
std::string raw(const T& value) {
  return {reinterpret_cast<const char*>(&value), sizeof value};
}

// One binding of every type, and numbers at both ends of their ranges.
const std::pair<uint8_t, std::string> kValues[] = {{kAsnInteger, raw(long{INT32_MIN})},
                                                   {kAsnInteger, raw(long{INT32_MAX})},
                                                   {kAsnOctetString, std::string(200, 'U')},
                                                   {kAsnObjectId, raw(kWide)},
                                                   {kAsnNull, ""},
                                                   {kSnmpIpAddress, raw(inet_addr("192.0.2.1"))},
                                                   {kSnmpCounter, raw(long{INT32_MAX})},
                                                   {kSnmpGauge, raw(long{128})},
                                                   {kSnmpTimeTicks, raw(long{255})},
                                                   {kSnmpOpaque, "\x02\x01"}};

std::string message(uint8_t command) {
  snmp_pdu* pdu = snmp_pdu_create(command);
  pdu->request_id = INT32_MIN;
  pdu->error_status = 2;
  pdu->error_index = 128;
  if (command == kSnmpTrap) {
    pdu->enterprise = static_cast<uint64_t*>(malloc(sizeof kWide));
    memcpy(pdu->enterprise, kWide, sizeof kWide);
    pdu->enterprise_length = std::size(kWide);
    pdu->agent_address = inet_addr("10.1.2.255");
    pdu->generic_trap = 6;
    pdu->specific_trap = INT32_MAX;
    pdu->time_stamp = 0x80000000;
  }
  snmp_var** link = &pdu->variables;
  for (const auto& [type, bytes] : kValues) {
    snmp_add_null_var(pdu, kName, std::size(kName));
    snmp_var* var = *link;
    var->type = type;
    var->value_length = static_cast<int32_t>(bytes.size());
    var->value = malloc(bytes.size());
    bytes.copy(static_cast<char*>(var->value), bytes.size());
    link = &var->next;
  }
  snmp_session session{};
  session.community = reinterpret_cast<uint8_t*>(const_cast<char*>("public"));
  session.community_length = 6;
  uint8_t packet[kSnmpMaxPacket];
  int32_t length = sizeof packet;
  EXPECT_EQ(snmp_build_packet(&session, pdu, packet, &length), 0);
  snmp_free_pdu(pdu);
  return {reinterpret_cast<char*>(packet), static_cast<size_t>(length)};
}

using InteropTest = LabTest;

TEST_F(InteropTest, AnIndependentDecoderReadsWhatWentIn) {
  const std::vector<std::string> fields = {
      "snmp.version",      "snmp.community",     "snmp.data",       "snmp.request_id",
      "snmp.error_status", "snmp.error_index",   "snmp.enterprise", "snmp.agent_addr",
      "snmp.generic_trap", "snmp.specific_trap", "snmp.time_stamp", "snmp.name",
      "snmp.value.int",    "snmp.value.octets",  "snmp.value.oid",  "snmp.value.null",
      "snmp.value.ipv4",   "snmp.value.counter", "snmp.value.g32",  "snmp.value.timeticks",
      "snmp.value.opaque", "_ws.malformed"};
  std::string values = "|1.3.6.1.2.1.1.1.0";
  for (size_t i = 1; i < std::size(kValues); ++i) values += ",1.3.6.1.2.1.1.1.0";
  values += "|-2147483648,2147483647|" + to_hex(std::string(200, 'U')) +
            "|1.3.127.128.16384.4294967295|1|192.0.2.1|2147483647|128|255|0201|\n";
  EXPECT_EQ(decoded({message(kSnmpGetRequest), message(kSnmpTrap)}, 162, fields),
            "0|public|0|-2147483648|2|128|||||" + values +
                "0|public|4||||1.3.127.128.16384.4294967295|10.1.2.255|6|2147483647|2147483648" +
                values);
}

}  // namespace

#include "snmp/snmp.h"

#include <climits>
#include <memory>

#include "snmp/asn1.h"
#include "snmp/snmp_pdu.h"
#include "snmp/snmp_session.h"
#include "tests/lab.h"

namespace {

using Pdu = std::unique_ptr<snmp_pdu, decltype(&snmp_free_pdu)>;

const uint8_t* drop_private(const uint8_t* pdu, int32_t*, const uint8_t* community, int32_t) {
  return strcmp(reinterpret_cast<const char*>(community), "private") == 0 ? nullptr : pdu;
}

SnmpParse parse(const std::string& message, snmp_pdu* pdu) {
  snmp_session session{};
  session.auth_hook = drop_private;
  // A copy of exactly its size: reading past it is seen by the sanitizers.
  std::vector<uint8_t> packet(message.begin(), message.end());
  return snmp_parse_packet(&session, pdu, packet);
}

std::string item(const char* tag, const std::string& contents) {
  size_t length = contents.size();
  std::string header = from_hex(tag);
  if (length >= 256) header += "\x82" + std::string(1, static_cast<char>(length >> 8));
  if (length >= 128 && length < 256) header += "\x81";
  return header + static_cast<char>(length) + contents;
}

// A GetResponse with the bindings given in hex.
std::string response(const std::string& bindings, const std::string& community = "public",
                     const char* version = "020100") {
  return item("30",
              from_hex(version) + item("04", community) +
                  item("A2", from_hex("020107 020100 020100") + item("30", from_hex(bindings))));
}

constexpr char kReference[] =
    "30 3F 02 01 00 04 06 70 75 62 6C 69 63 A4 32 06 07 2B 06 01 04 01 A7 3B 40 04 0A 01 02 03"
    "02 01 06 02 01 01 43 02 30 39 30 17 30 15 06 08 2B 06 01 02 01 01 01 00 04 09 64 69 73 6B"
    "20 66 75 6C 6C";
const uint64_t kEnterprise[] = {1, 3, 6, 1, 4, 1, 5051};
const uint64_t kSysDescr[] = {1, 3, 6, 1, 2, 1, 1, 1, 0};

int32_t build_reference(uint8_t* packet, int32_t* length) {
  return snmp_build_trap(packet, length, kEnterprise, 7, htonl(0x0A010203), 6, 1, 12345, kSysDescr,
                         9, kAsnOctetString, 9, "disk full");
}

TEST(SnmpMessage, ReferenceTrap) {
  uint8_t packet[kSnmpMaxPacket];
  int32_t length = sizeof packet;
  ASSERT_EQ(build_reference(packet, &length), 65);
  EXPECT_EQ(length, 65);
  const std::string message(reinterpret_cast<char*>(packet), 65);
  EXPECT_EQ(to_hex(message), to_hex(from_hex(kReference)));
  for (int32_t room = 0; room < 65; ++room) {
    std::vector<uint8_t> small(static_cast<size_t>(room));
    length = room;
    EXPECT_EQ(build_reference(small.data(), &length), 0) << room;
  }

  Pdu pdu(snmp_pdu_create(0), snmp_free_pdu);
  ASSERT_EQ(parse(message, pdu.get()), SnmpParse::kDone);
  EXPECT_EQ(pdu->command, kSnmpTrap);
  EXPECT_EQ(std::vector(pdu->enterprise, pdu->enterprise + pdu->enterprise_length),
            std::vector(std::begin(kEnterprise), std::end(kEnterprise)));
  EXPECT_EQ(pdu->agent_address, htonl(0x0A010203));
  EXPECT_EQ(std::tuple(pdu->generic_trap, pdu->specific_trap, pdu->time_stamp),
            std::tuple(6, 1, 12345u));
  const snmp_var* var = pdu->variables;
  ASSERT_NE(var, nullptr);
  EXPECT_EQ(std::string(static_cast<char*>(var->value), static_cast<size_t>(var->value_length)),
            "disk full");
  EXPECT_EQ(var->next, nullptr);
  for (size_t kept = 0; kept < 65; ++kept) {
    Pdu cut(snmp_pdu_create(0), snmp_free_pdu);
    EXPECT_EQ(parse(message.substr(0, kept), cut.get()), SnmpParse::kMangled) << kept;
  }
}

TEST(SnmpMessage, DecodesEveryValueType) {
  const std::string name = "06032B0601";
  std::string bindings;
  for (const char* value : {"0201FE", "040161", "0500", "06022B06", "4004C0000201",
                            "410500FFFFFFFF", "4204FFFFFFFF", "430180", "44020500", "0400"}) {
    bindings += to_hex(item("30", from_hex(name + value)));
  }
  Pdu pdu(snmp_pdu_create(0), snmp_free_pdu);
  ASSERT_EQ(parse(response(bindings), pdu.get()), SnmpParse::kDone);
  EXPECT_EQ(pdu->request_id, 7);
  std::vector<std::string> values;
  for (const snmp_var* var = pdu->variables; var != nullptr; var = var->next) {
    values.push_back(
        to_hex({static_cast<const char*>(var->value), static_cast<size_t>(var->value_length)}));
  }
  // Integers are longs and sub-identifiers 64-bit numbers, in host byte order.
  EXPECT_EQ(values, (std::vector<std::string>{"FEFFFFFFFFFFFFFF", "61", "",
                                              "010000000000000003000000000000000600000000000000",
                                              "C0000201", "FFFFFFFF00000000", "FFFFFFFF00000000",
                                              "80FFFFFF00000000", "0500", ""}));
}

TEST(SnmpMessage, Reports) {
  const std::string good = "3008 06032B0601 020105";
  const std::tuple<std::string, SnmpParse, const char*> cases[] = {
      {response(good), SnmpParse::kDone, ""},
      {response(good, "private"), SnmpParse::kDropped, ""},
      {response(good, std::string(127, 'c')), SnmpParse::kDone, ""},
      {response(good, std::string(128, 'c')), SnmpParse::kMangled, ""},
      {response(good, "public", "020101"), SnmpParse::kDone,
       "Wrong version: 1\nContinuing anyway\n"},
      {response("3008 06032B0601 460105" + good), SnmpParse::kDone, "bad type returned (46)\n"},
  };
  for (const auto& [message, result, wanted] : cases) {
    SCOPED_TRACE(to_hex(message));
    Pdu pdu(snmp_pdu_create(0), snmp_free_pdu);
    testing::internal::CaptureStderr();
    EXPECT_EQ(parse(message, pdu.get()), result);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), wanted);
  }
}

TEST(SnmpMessage, RefusesMalformedBindings) {
  for (const char* bindings : {
           "3008 06032B0601 02010500",         // bytes behind the value
           "3009 06032B0601 020105",           // the binding claims more than there is
           "3007 06032B0601 0200",             // no integer at all
           "3004 0600 0500",                   // no name
           "3105 02012B 0500",                 // not a SEQUENCE
           "3008 04032B0601 020105",           // the name is a string
           "3006 06032B0601 05",               // half a value
           "300C 06032B0601 0605 9080808000",  // a sub-identifier of 2^32
       }) {
    Pdu pdu(snmp_pdu_create(0), snmp_free_pdu);
    EXPECT_EQ(parse(response(bindings), pdu.get()), SnmpParse::kMangled) << bindings;
  }
}

// A response with `count` bindings of `length` bytes each, and its session.
struct Generated {
  Generated(int count, size_t length)
      : text(length, 'z'), pdu(snmp_pdu_create(kSnmpGetResponse), snmp_free_pdu) {
    session.community = reinterpret_cast<uint8_t*>(const_cast<char*>("public"));
    session.community_length = 6;
    snmp_var** link = &pdu->variables;
    for (int i = 0; i < count; ++i, link = &(*link)->next) {
      snmp_add_null_var(pdu.get(), kSysDescr, 9);
      (*link)->type = kAsnOctetString;
      (*link)->value_length = static_cast<int32_t>(length);
      (*link)->value = malloc(length + 1);
      memcpy((*link)->value, text.data(), length);
    }
    pdu->error_status = pdu->error_index = 0;
  }
  std::string build(int32_t room) const {
    std::vector<uint8_t> packet(static_cast<size_t>(room));
    int32_t length = room;
    if (snmp_build_packet(&session, pdu.get(), packet.data(), &length) != 0) return "";
    return {reinterpret_cast<char*>(packet.data()), static_cast<size_t>(length)};
  }
  std::string text;
  snmp_session session{};
  Pdu pdu;
};

// What the message must be, put together by hand.
std::string expected(int count, const std::string& text) {
  std::string bindings;
  for (int i = 0; i < count; ++i) {
    bindings += item("30", from_hex("06082B06010201010100") + item("04", text));
  }
  return item("30", from_hex("020100") + item("04", "public") +
                        item("A2", from_hex("020100 020100 020100") + item("30", bindings)));
}

TEST(SnmpMessage, LengthsOfEverySize) {
  for (int count : {0, 1, 2, 3}) {
    for (size_t length = 0; length < 300; ++length) {
      const std::string wanted = expected(count, std::string(length, 'z'));
      const Generated made(count, length);
      const auto size = static_cast<int32_t>(wanted.size());
      ASSERT_EQ(made.build(size), wanted) << count << " x " << length;
      ASSERT_EQ(made.build(size - 1), "") << count << " x " << length;
    }
  }
  // 50 bytes around a text of that length: 4500 is the most.
  EXPECT_EQ(Generated(1, 4450).build(kSnmpMaxPacket), expected(1, std::string(4450, 'z')));
  EXPECT_EQ(Generated(1, 4451).build(kSnmpMaxPacket), "");
  Generated absurd(1, 5);
  absurd.session.community_length = INT_MAX;
  EXPECT_EQ(absurd.build(kSnmpMaxPacket), "");
}

TEST(SnmpPdu, CloneAndFix) {
  Generated made(3, 2);
  made.pdu->request_id = 9;
  Pdu clone(snmp_clone_pdu(made.pdu.get()), snmp_free_pdu);
  EXPECT_NE(clone->variables->value, made.pdu->variables->value);
  made.pdu = std::move(clone);
  std::string message = expected(3, "zz");
  message.replace(message.find(from_hex("020100020100020100")), 3, from_hex("020109"));
  EXPECT_EQ(made.build(kSnmpMaxPacket), message);

  int number = 0;
  for (snmp_var* var = made.pdu->variables; var != nullptr; var = var->next) {
    var->name[8] = static_cast<uint64_t>(++number);
  }
  // Error index and status, command, and the bindings left; none: no result.
  const std::tuple<long, long, uint8_t, std::vector<uint64_t>> cases[] = {
      {1, 2, kSnmpGetResponse, {2, 3}}, {2, 2, kSnmpGetResponse, {1, 3}},
      {3, 2, kSnmpGetResponse, {1, 2}}, {4, 2, kSnmpGetResponse, {}},
      {0, 2, kSnmpGetResponse, {}},     {2, 0, kSnmpGetResponse, {}},
      {2, 2, kSnmpGetRequest, {}},
  };
  for (const auto& [index, status, command, wanted] : cases) {
    made.pdu->error_index = index;
    made.pdu->error_status = status;
    made.pdu->command = command;
    Pdu fixed(snmp_fix_pdu(made.pdu.get(), kSnmpGetNextRequest), snmp_free_pdu);
    ASSERT_EQ(fixed == nullptr, wanted.empty()) << index;
    if (fixed == nullptr) continue;
    EXPECT_EQ(fixed->command, kSnmpGetNextRequest);
    EXPECT_EQ(fixed->request_id, 0);
    std::vector<uint64_t> left;
    for (const snmp_var* var = fixed->variables; var != nullptr; var = var->next) {
      left.push_back(var->name[8]);
    }
    EXPECT_EQ(left, wanted);
  }
  Generated lonely(1, 2);
  lonely.pdu->error_index = lonely.pdu->error_status = 1;
  EXPECT_EQ(snmp_fix_pdu(lonely.pdu.get(), kSnmpGetRequest), nullptr);
}

}  // namespace

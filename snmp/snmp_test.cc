#include "snmp/snmp.h"

#include <climits>

#include "snmp/snmp_auth.h"
#include "snmp/snmp_pdu.h"
#include "snmp/snmp_session.h"
#include "tests/lab.h"

namespace {

std::string community;  // of the message decoded last, with the byte behind it

const uint8_t* keep_community(const uint8_t* pdu, int32_t*, const uint8_t* bytes, int32_t length) {
  community = {bytes, bytes + length + 1};
  return community.starts_with("private") ? nullptr : pdu;
}

struct Decoded {
  SnmpParse result;
  unique_pdu pdu;
};

Decoded decode(const std::string& message) {
  snmp_session session{};
  session.auth_hook = keep_community;
  // A copy of exactly its size: reading past it is seen by the sanitizers.
  std::vector<uint8_t> packet(message.begin(), message.end());
  unique_pdu pdu(snmp_pdu_create(0));
  const SnmpParse result = snmp_parse_packet(&session, pdu.get(), packet);
  return {result, std::move(pdu)};
}

std::string bytes_of(const void* bytes, int32_t length) {
  return {static_cast<const char*>(bytes), static_cast<size_t>(length)};
}

// The message of `pdu`, built in `room` bytes; empty when that fails.
std::string build(const snmp_pdu* pdu, int32_t room, const std::string& by = "public") {
  snmp_session session{};
  session.community = reinterpret_cast<uint8_t*>(const_cast<char*>(by.data()));
  session.community_length = static_cast<int32_t>(by.size());
  std::vector<uint8_t> packet(static_cast<size_t>(room));
  int32_t length = room;
  return snmp_build_packet(&session, pdu, packet.data(), &length) == 0
             ? bytes_of(packet.data(), length)
             : "";
}

std::string dotted(const uint64_t* subids, int32_t count) {
  std::string text;
  for (int32_t i = 0; i < count; ++i) text += (i > 0 ? "." : "") + std::to_string(subids[i]);
  return text;
}

// A PDU as text: its fields, and every binding as name=type:value.
std::string text_of(const snmp_pdu& pdu) {
  std::string text = to_hex(std::string(1, static_cast<char>(pdu.command)));
  if (pdu.command == kSnmpTrap) {
    text += " " + dotted(pdu.enterprise, pdu.enterprise_length) + " " +
            to_hex(bytes_of(&pdu.agent_address, 4));
    for (long number : {pdu.generic_trap, pdu.specific_trap, static_cast<long>(pdu.time_stamp)}) {
      text += " " + std::to_string(number);
    }
  } else {
    for (long number : {pdu.request_id, pdu.error_status, pdu.error_index}) {
      text += " " + std::to_string(number);
    }
  }
  for (const snmp_var* var = pdu.variables; var != nullptr; var = var->next) {
    text += " " + dotted(var->name, var->name_length) + "=" +
            to_hex(std::string(1, static_cast<char>(var->type))) + ":" +
            to_hex(bytes_of(var->value, var->value_length));
  }
  return text;
}

std::string item(const char* tag, const std::string& contents) {
  size_t length = contents.size();
  std::string header = from_hex(tag);
  if (length >= 256) header += "\x82" + std::string(1, static_cast<char>(length >> 8));
  if (length >= 128 && length < 256) header += "\x81";
  return header + static_cast<char>(length) + contents;
}

// A GetResponse with the bindings given in hex.
std::string response(const std::string& bindings, const std::string& by = "public",
                     const char* version = "020100") {
  return item("30",
              from_hex(version) + item("04", by) +
                  item("A2", from_hex("020107 020102 020103") + item("30", from_hex(bindings))));
}

constexpr char kReference[] =
    "30 3F 02 01 00 04 06 70 75 62 6C 69 63 A4 32 06 07 2B 06 01 04 01 A7 3B 40 04 0A 01 02 03"
    "02 01 06 02 01 01 43 02 30 39 30 17 30 15 06 08 2B 06 01 02 01 01 01 00 04 09 64 69 73 6B"
    "20 66 75 6C 6C";
constexpr char kRequest[] =
    "30 26 02 01 00 04 06 70 75 62 6C 69 63 A0 19 02 01 05 02 01 00 02 01 00 30 0E 30 0C 06 08"
    "2B 06 01 02 01 01 01 00 05 00";
const uint64_t kEnterprise[] = {1, 3, 6, 1, 4, 1, 5051};
const uint64_t kSysDescr[] = {1, 3, 6, 1, 2, 1, 1, 1, 0};

int32_t build_trap(uint8_t* packet, int32_t* length, const std::string& text) {
  return snmp_build_trap(packet, length, kEnterprise, 7, htonl(0x0A010203), 6, 1, 12345, kSysDescr,
                         9, 4, static_cast<int32_t>(text.size()), text.data());
}

TEST(SnmpMessage, ComesBackAsItWent) {
  const std::pair<std::string, const char*> cases[] = {
      {from_hex(kReference),
       "A4 1.3.6.1.4.1.5051 0A010203 6 1 12345 1.3.6.1.2.1.1.1.0=04:6469736B2066756C6C"},
      {from_hex(kRequest), "A0 5 0 0 1.3.6.1.2.1.1.1.0=05:"},
      // What has the top bit set is below 0, whatever its type.
      {from_hex("301E 020100 0400 A417 06012B 40040000FFFF 0201FF 020180 430480000000 3000"),
       "A4 1.3 0000FFFF -1 -128 -2147483648"},
      {response("3007 06022B06 4201FF  300A 06022B06 430480000000"),
       "A2 7 2 3 1.3.6=42:FFFFFFFFFFFFFFFF 1.3.6=43:00000080FFFFFFFF"},
      // Integers are longs and sub-identifiers 64-bit numbers, in host byte order.
      {response("3007 06022B06 0201FE  3008 06022B06 41020080  3006 06022B06 0400 "
                "3007 06022B06 040161  3006 06022B06 0500  3008 06022B06 06022B07 "
                "300A 06022B06 4004C0000201  3008 06022B06 44020500"),
       "A2 7 2 3 1.3.6=02:FEFFFFFFFFFFFFFF 1.3.6=41:8000000000000000 1.3.6=04: 1.3.6=04:61 "
       "1.3.6=05: 1.3.6=06:010000000000000003000000000000000700000000000000 1.3.6=40:C0000201 "
       "1.3.6=44:0500"},
      {response("", std::string("a\0b", 3)), "A2 7 2 3"},
      {response("", std::string(127, 'c')), "A2 7 2 3"},
  };
  for (const auto& [message, text] : cases) {
    const auto [result, pdu] = decode(message);
    ASSERT_EQ(result, SnmpParse::kDone) << text;
    EXPECT_EQ(text_of(*pdu), text);
    EXPECT_EQ(community.back(), '\0');
    community.pop_back();
    const auto size = static_cast<int32_t>(message.size());
    EXPECT_EQ(to_hex(build(pdu.get(), size, community)), to_hex(message));
    for (int32_t room = 0; room < size; ++room) {
      EXPECT_EQ(build(pdu.get(), room, community), "") << room;
    }
    for (size_t kept = 0; kept < message.size(); ++kept) {
      EXPECT_EQ(decode(message.substr(0, kept)).result, SnmpParse::kMangled) << kept;
    }
    unique_pdu clone(snmp_clone_pdu(pdu.get()));
    EXPECT_EQ(text_of(*clone), text);
    EXPECT_TRUE(pdu->variables == nullptr || clone->variables->name != pdu->variables->name);
  }
}

TEST(SnmpMessage, TrapInOneCall) {
  uint8_t packet[6000];
  for (int32_t room = 0; room < 65; ++room) {
    std::vector<uint8_t> small(static_cast<size_t>(room));
    int32_t length = room;
    EXPECT_EQ(build_trap(small.data(), &length, "disk full"), 0) << room;
  }
  // Longer than any packet: the room passed in is the only limit.
  for (size_t size : {9U, 75U, 200U, 5000U}) {
    const std::string text(size, 't');
    const std::string message = item(
        "30", from_hex("020100") + item("04", "public") +
                  item("A4", from_hex("06072B06010401A73B 40040A010203 020106 020101 43023039") +
                                 item("30", item("30", from_hex("06082B06010201010100") +
                                                           item("04", text)))));
    int32_t length = sizeof packet;
    EXPECT_EQ(build_trap(packet, &length, text), static_cast<int32_t>(message.size()));
    EXPECT_EQ(bytes_of(packet, length), message);
  }
}

TEST(SnmpMessage, Reports) {
  const std::string good = "3008 06032B0601 020105";
  const std::tuple<std::string, SnmpParse, const char*> cases[] = {
      {response(good, "private", "020101"), SnmpParse::kDropped,
       "Wrong version: 1\nContinuing anyway\n"},
      {response(good, std::string(128, 'c')), SnmpParse::kMangled, ""},
      {response(good, "public", "0201FF"), SnmpParse::kDone,
       "Wrong version: -1\nContinuing anyway\n"},
      {response("3008 06032B0601 460105" + good), SnmpParse::kDone, "bad type returned (46)\n"},
  };
  for (const auto& [message, result, wanted] : cases) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(decode(message).result, result) << to_hex(message);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), wanted);
  }
}

TEST(SnmpMessage, SkipsWhatItNeedNotRead) {
  for (const char* bindings : {
           "3007 06022B06 020105  3006 06022B06 0500",
           "3009 06022B06 020105 0500  3007 06022B06 0500 FF",  // bytes behind the value
           "3007 06022B06 020105  3009 06022B06 0503313233",    // a NULL with contents
       }) {
    const auto [result, pdu] = decode(response(bindings));
    EXPECT_EQ(result, SnmpParse::kDone);
    EXPECT_EQ(text_of(*pdu), "A2 7 2 3 1.3.6=02:0500000000000000 1.3.6=05:") << bindings;
  }
}

TEST(SnmpMessage, RefusesWhatIsMalformed) {
  for (const char* bindings : {
           "3009 06032B0601 020105",           // the binding claims more than there is
           "3007 06032B0601 0200",             // no integer at all
           "3004 0600 0500",                   // no name
           "3006 06032B0601 05",               // half a value
           "300C 06032B0601 0605 9080808000",  // a sub-identifier of 2^32
       }) {
    EXPECT_EQ(decode(response(bindings)).result, SnmpParse::kMangled) << bindings;
  }
  // Every tag but the PDU's is what it must be, and an address has four bytes.
  const std::pair<const char*, std::vector<size_t>> tags[] = {
      {kReference, {0, 2, 5, 15, 24, 30, 33, 36, 40, 42, 44}},
      {kRequest, {15, 18, 21, 24, 26, 28}}};
  for (const auto& [hex, places] : tags) {
    for (size_t place : places) {
      std::string message = from_hex(hex);
      message[place] ^= 1;
      EXPECT_EQ(decode(message).result, SnmpParse::kMangled) << hex << place;
    }
  }
  for (const char* fields : {"A413 06012B 40030A0102 020101 020101 430101 3000",
                             "A415 06012B 40050A01020304 020101 020101 430101 3000"}) {
    EXPECT_EQ(decode(item("30", from_hex("020100 0400") + from_hex(fields))).result,
              SnmpParse::kMangled);
  }
}

// A response with `count` bindings of `length` bytes each.
unique_pdu generated(int count, size_t length) {
  unique_pdu pdu(snmp_pdu_create(kSnmpGetResponse));
  snmp_var** link = &pdu->variables;
  for (int i = 0; i < count; ++i, link = &(*link)->next) {
    snmp_add_null_var(pdu.get(), kSysDescr, 9);
    (*link)->type = 4;
    (*link)->value_length = static_cast<int32_t>(length);
    (*link)->value = malloc(length + 1);
    memset((*link)->value, 'z', length);
  }
  pdu->error_status = pdu->error_index = 0;
  return pdu;
}

// What the message must be, put together by hand.
std::string expected(int count, size_t length, const std::string& by = "public") {
  std::string bindings;
  for (int i = 0; i < count; ++i) {
    bindings += item("30", from_hex("06082B06010201010100") + item("04", std::string(length, 'z')));
  }
  return item("30", from_hex("020100") + item("04", by) +
                        item("A2", from_hex("020100 020100 020100") + item("30", bindings)));
}

TEST(SnmpMessage, LengthsOfEverySize) {
  for (int count : {0, 1, 2, 3}) {
    for (size_t length = 0; length < 300; ++length) {
      const std::string wanted = expected(count, length);
      const unique_pdu pdu = generated(count, length);
      const auto size = static_cast<int32_t>(wanted.size());
      ASSERT_EQ(build(pdu.get(), size), wanted) << count << " x " << length;
      ASSERT_EQ(build(pdu.get(), size - 1), "") << count << " x " << length;
    }
  }
  // A PDU has at most 4500 bytes; its message is limited by the room alone.
  for (const std::string& by : {std::string("public"), std::string(300, 'c')}) {
    EXPECT_EQ(build(generated(1, 4465).get(), 5000, by), expected(1, 4465, by));
    EXPECT_EQ(build(generated(1, 4466).get(), 5000, by), "");
  }
  EXPECT_EQ(build(generated(0, 0).get(), 200000, std::string(65536, 'c')), "");
  snmp_session session{};
  int32_t length = 100;
  uint8_t packet[100];
  for (int32_t absurd : {-1, INT_MAX}) {
    session.community_length = absurd;
    EXPECT_EQ(snmp_build_packet(&session, generated(0, 0).get(), packet, &length), -1);
  }
}

TEST(SnmpPdu, Fix) {
  const unique_pdu pdu = generated(3, 1);
  uint64_t number = 0;
  for (snmp_var* var = pdu->variables; var != nullptr; var = var->next) var->name[8] = ++number;
  pdu->request_id = 9;
  // Error index, error status, command, and the bindings left; none: no result.
  const std::tuple<long, long, uint8_t, std::vector<const char*>> cases[] = {
      {1, 5, 0xA2, {"2", "3"}}, {2, 1, 0xA2, {"1", "3"}}, {3, 2, 0xA2, {"1", "2"}},
      {4, 2, 0xA2, {}},         {0, 2, 0xA2, {}},         {-1, 2, 0xA2, {}},
      {2, 0, 0xA2, {}},         {2, 2, 0xA0, {}},
  };
  for (const auto& [index, status, command, left] : cases) {
    pdu->error_index = index;
    pdu->error_status = status;
    pdu->command = command;
    const unique_pdu fixed(snmp_fix_pdu(pdu.get(), 0xA1));
    std::string wanted = "A1 0 -1 -1";
    for (const char* last : left) wanted += " 1.3.6.1.2.1.1.1." + std::string(last) + "=04:7A";
    EXPECT_EQ(fixed != nullptr ? text_of(*fixed) : "", left.empty() ? "" : wanted) << index;
  }
  const unique_pdu lonely = generated(1, 1);
  lonely->error_index = lonely->error_status = 1;
  EXPECT_EQ(snmp_fix_pdu(lonely.get(), 0xA0), nullptr);
}

TEST(SnmpPdu, TextsOfErrors) {
  const char* const texts[] = {"No Error",
                               "Response message would have been too large.",
                               "There is no such variable name in this MIB.",
                               "The value given has the wrong type or length",
                               "This variable is read only",
                               "A general failure occured"};
  for (int32_t status = 0; status < 6; ++status) {
    EXPECT_STREQ(error_string[status], texts[status]);
    EXPECT_EQ(snmp_errstring(status), error_string[status]);
  }
  for (int32_t status : {-1, 6, INT_MIN}) EXPECT_STREQ(snmp_errstring(status), "Unknown Error");
}

}  // namespace

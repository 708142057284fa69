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

// Decodes `message` into `pdu`, a new one.
SnmpParse decode(const std::string& message, unique_pdu* pdu) {
  snmp_session session{};
  session.auth_hook = keep_community;
  // A copy of exactly its size: reading past it is seen by the sanitizers.
  std::vector<uint8_t> packet(message.begin(), message.end());
  pdu->reset(snmp_pdu_create(0));
  return snmp_parse_packet(&session, pdu->get(), packet);
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

// What a message is decoded to, behind what is told of it.
std::string decoded(const std::string& message) {
  unique_pdu pdu;
  testing::internal::CaptureStderr();
  const SnmpParse result = decode(message, &pdu);
  return testing::internal::GetCapturedStderr() + (result == SnmpParse::kMangled   ? "mangled"
                                                   : result == SnmpParse::kDropped ? "dropped"
                                                                                   : text_of(*pdu));
}

std::string item(const char* tag, const std::string& contents) {
  size_t length = contents.size();
  std::string header = from_hex(tag);
  if (length >= 256) header += "\x82" + std::string(1, static_cast<char>(length >> 8));
  if (length >= 128 && length < 256) header += "\x81";
  return header + static_cast<char>(length) + contents;
}

// A message of the PDU and its contents, the bindings last, in hex.
std::string message(const char* tag, const char* fields, const std::string& bindings,
                    const std::string& by = "public", const char* version = "020100") {
  return item("30", from_hex(version) + item("04", by) +
                        item(tag, from_hex(fields) + item("30", from_hex(bindings))));
}

std::string response(const std::string& bindings, const std::string& by = "public",
                     const char* version = "020100") {
  return message("A2", "020107 020102 020103", bindings, by, version);
}

constexpr char kReference[] =
    "30 3F 02 01 00 04 06 70 75 62 6C 69 63 A4 32 06 07 2B 06 01 04 01 A7 3B 40 04 0A 01 02 03"
    "02 01 06 02 01 01 43 02 30 39 30 17 30 15 06 08 2B 06 01 02 01 01 01 00 04 09 64 69 73 6B"
    "20 66 75 6C 6C";
constexpr char kRequest[] =
    "30 26 02 01 00 04 06 70 75 62 6C 69 63 A0 19 02 01 05 02 01 00 02 01 00 30 0E 30 0C 06 08"
    "2B 06 01 02 01 01 01 00 05 00";

TEST(SnmpMessage, ComesBackAsItWent) {
  const std::pair<std::string, const char*> cases[] = {
      {from_hex(kReference),
       "A4 1.3.6.1.4.1.5051 0A010203 6 1 12345 1.3.6.1.2.1.1.1.0=04:6469736B2066756C6C"},
      {from_hex(kRequest), "A0 5 0 0 1.3.6.1.2.1.1.1.0=05:"},
      // What has the top bit set is below 0, whatever its type.
      {message("A4", "06012B 40040000FFFF 0201FF 020180 430480000000", ""),
       "A4 1.3 0000FFFF -1 -128 -2147483648"},
      {response("3007 06022B06 4201FF  300A 06022B06 430480000000"),
       "A2 7 2 3 1.3.6=42:FFFFFFFFFFFFFFFF 1.3.6=43:00000080FFFFFFFF"},
      // Integers are longs and sub-identifiers 64-bit numbers, in host byte order.
      {response("3007 06022B06 0201FE  3008 06022B06 41020080  3006 06022B06 0400 "
                "3007 06022B06 040161  3008 06022B06 06022B07 "
                "300A 06022B06 4004C0000201  3008 06022B06 44020500"),
       "A2 7 2 3 1.3.6=02:FEFFFFFFFFFFFFFF 1.3.6=41:8000000000000000 1.3.6=04: 1.3.6=04:61 "
       "1.3.6=06:010000000000000003000000000000000700000000000000 1.3.6=40:C0000201 1.3.6=44:0500"},
      {response("", std::string("a\0b", 3)), "A2 7 2 3"},
      {response("", std::string(127, 'c')), "A2 7 2 3"},
  };
  for (const auto& [sent, text] : cases) {
    unique_pdu pdu;
    ASSERT_EQ(decode(sent, &pdu), SnmpParse::kDone) << text;
    EXPECT_EQ(text_of(*pdu), text);
    EXPECT_EQ(community.back(), '\0');
    community.pop_back();
    const auto size = static_cast<int32_t>(sent.size());
    EXPECT_EQ(to_hex(build(pdu.get(), size, community)), to_hex(sent));
    for (int32_t room = 0; room < size; ++room) {
      EXPECT_EQ(build(pdu.get(), room, community), "") << room;
    }
    for (size_t kept = 0; kept < sent.size(); ++kept) {
      EXPECT_EQ(decoded(sent.substr(0, kept)), "mangled") << kept;
    }
    unique_pdu clone(snmp_clone_pdu(pdu.get()));
    EXPECT_EQ(text_of(*clone), text);
    EXPECT_TRUE(pdu->variables == nullptr || clone->variables->name != pdu->variables->name);
  }
}

TEST(SnmpMessage, DecodesWhatItCan) {
  const std::string good = "3007 06022B06 020105";
  const std::string value = "1.3.6=02:0500000000000000", done = "A2 7 2 3 " + value;
  const std::pair<std::string, std::string> cases[] = {
      {response(good, "private", "020101"), "Wrong version: 1\nContinuing anyway\ndropped"},
      {response(good, std::string(128, 'c')), "mangled"},
      {response(good, "", "0201FF"), "Wrong version: -1\nContinuing anyway\n" + done},
      {response("3007 06022B06 460105" + good),
       "bad type returned (46)\nA2 7 2 3 1.3.6=46: " + value},
      {response("3009 06022B06 020105 0500" + good), done + " " + value},  // behind the value
      {response("3008 06022B06 020105 FF"), done},
      {response("3009 06022B06 0503313233" + good), "A2 7 2 3 1.3.6=05: " + value},
      {response("3008 06022B06 020105"), "mangled"},          // claims more than there is
      {response("3006 06022B06 0200"), "mangled"},            // no integer at all
      {response("3004 0600 0500"), "mangled"},                // no name
      {response("3005 06022B06 05"), "mangled"},              // half a value
      {response("300B 06022B06 06059080808000"), "mangled"},  // a sub-identifier of 2^32
      {message("A4", "06012B 40030A0102 020101 020101 430101", ""), "mangled"},
      {message("A4", "06012B 40050A01020304 020101 020101 430101", ""), "mangled"},
  };
  for (const auto& [received, outcome] : cases) {
    EXPECT_EQ(decoded(received), outcome) << to_hex(received);
  }
  // Every tag but the PDU's is what it must be.
  const std::pair<const char*, std::vector<size_t>> tags[] = {
      {kReference, {0, 2, 5, 15, 24, 30, 33, 36, 40, 42, 44}}, {kRequest, {15, 18, 21}}};
  for (const auto& [hex, places] : tags) {
    for (size_t place : places) {
      std::string received = from_hex(hex);
      received[place] ^= 1;
      EXPECT_EQ(decoded(received), "mangled") << hex << place;
    }
  }
}

// A response with `count` bindings of texts of `length` bytes.
unique_pdu make_response(int count, size_t length) {
  const uint64_t name[] = {1, 3, 6, 1, 2, 1, 1, 1, 0};
  unique_pdu pdu(snmp_pdu_create(kSnmpGetResponse));
  EXPECT_EQ(text_of(*pdu), "A2 0 -1 -1");
  snmp_var** link = &pdu->variables;
  for (int i = 0; i < count; ++i, link = &(*link)->next) {
    snmp_add_null_var(pdu.get(), name, 9);
    (*link)->type = 4;
    (*link)->value_length = static_cast<int32_t>(length);
    (*link)->value = malloc(length + 1);
    memset((*link)->value, 'z', length);
  }
  return pdu;
}

// The bindings of such texts in hex, put together by hand.
std::string bindings_of(int count, size_t length) {
  const std::string one =
      to_hex(item("30", from_hex("06082B06010201010100") + item("04", std::string(length, 'z'))));
  std::string all;
  for (int i = 0; i < count; ++i) all += one;
  return all;
}

TEST(SnmpMessage, LengthsOfEverySize) {
  auto wanted = [](int count, size_t length, const std::string& by) {
    return message("A2", "020100 0201FF 0201FF", bindings_of(count, length), by);
  };
  for (int count : {0, 1, 2, 3}) {
    for (size_t length = 0; length < 300; ++length) {
      const unique_pdu pdu = make_response(count, length);
      const std::string whole = wanted(count, length, "public");
      const auto size = static_cast<int32_t>(whole.size());
      ASSERT_EQ(build(pdu.get(), size), whole) << count << " x " << length;
      for (int32_t less : {1, 2, 4}) {
        ASSERT_EQ(build(pdu.get(), size - less), "") << count << " x " << length;
      }
    }
  }
  // A PDU has at most 4500 bytes; its message is limited by the room alone.
  for (const std::string& by : {std::string("public"), std::string(300, 'c')}) {
    EXPECT_EQ(build(make_response(1, 4465).get(), 5000, by), wanted(1, 4465, by));
    EXPECT_EQ(build(make_response(1, 4466).get(), 5000, by), "");
  }
  snmp_session session{};
  uint8_t packet[200];
  for (int32_t absurd : {-1, 65536, INT_MAX}) {
    session.community_length = absurd;
    int32_t length = sizeof packet;
    EXPECT_EQ(snmp_build_packet(&session, make_response(0, 0).get(), packet, &length), -1);
  }
}

TEST(SnmpMessage, WrapperOfAPduToCome) {
  uint8_t packet[20];
  int32_t room = 15, community_length = 3;
  const long version = 0;
  const auto* by = reinterpret_cast<const uint8_t*>("abc");
  EXPECT_EQ(snmp_auth_build(packet, &room, by, &community_length, &version, 120), packet + 11);
  EXPECT_EQ(room, 4);
  EXPECT_EQ(to_hex(bytes_of(packet, 11)), "3081800201000403616263");
}

TEST(SnmpMessage, TrapInOneCall) {
  const uint64_t enterprise[] = {1, 3, 6, 1, 4, 1, 5051}, name[] = {1, 3, 6, 1, 2, 1, 1, 1, 0};
  for (size_t size : {9U, 75U, 200U, 5000U}) {  // the room passed in is the only limit
    const std::string text(size, 'z');
    const std::string whole = message(
        "A4", "06072B06010401A73B 40040A010203 020106 020101 43023039", bindings_of(1, size));
    for (size_t less : {0U, 1U, 2U, 60U}) {
      std::vector<uint8_t> packet(whole.size() - less);
      auto length = static_cast<int32_t>(packet.size());
      const int32_t result =
          snmp_build_trap(packet.data(), &length, enterprise, 7, htonl(0x0A010203), 6, 1, 12345,
                          name, 9, 4, static_cast<int32_t>(size), text.data());
      EXPECT_EQ(result, less == 0 ? length : 0);
      EXPECT_EQ(less == 0 ? bytes_of(packet.data(), length) : whole, whole);
    }
  }
}

TEST(SnmpPdu, Fix) {
  const unique_pdu pdu = make_response(3, 1);
  uint64_t number = 0;
  for (snmp_var* var = pdu->variables; var != nullptr; var = var->next) var->name[8] = ++number;
  pdu->request_id = 9;
  const std::string kept[] = {" 1.3.6.1.2.1.1.1.1=04:7A", " 1.3.6.1.2.1.1.1.2=04:7A",
                              " 1.3.6.1.2.1.1.1.3=04:7A"};
  // Error index, error status, command, and the bindings left; none: no result.
  const std::tuple<long, long, uint8_t, std::string> cases[] = {
      {1, 5, 0xA2, kept[1] + kept[2]},
      {2, 1, 0xA2, kept[0] + kept[2]},
      {3, 2, 0xA2, kept[0] + kept[1]},
      {4, 2, 0xA2, ""},
      {0, 2, 0xA2, ""},
      {-1, 2, 0xA2, ""},
      {2, 0, 0xA2, ""},
      {2, 2, 0xA0, ""},
  };
  for (const auto& [index, status, command, left] : cases) {
    pdu->error_index = index;
    pdu->error_status = status;
    pdu->command = command;
    const unique_pdu fixed(snmp_fix_pdu(pdu.get(), 0xA1));
    EXPECT_EQ(fixed != nullptr ? text_of(*fixed) : "", left.empty() ? "" : "A1 0 -1 -1" + left);
  }
  for (int bindings : {1, 2}) {
    const unique_pdu few = make_response(bindings, 1);
    few->error_index = few->error_status = 1;
    EXPECT_EQ(unique_pdu(snmp_fix_pdu(few.get(), 0xA0)) != nullptr, bindings == 2);
  }
}

TEST(SnmpPdu, TextsOfErrors) {
  const char* const texts[] = {"Unknown Error",
                               "No Error",
                               "Response message would have been too large.",
                               "There is no such variable name in this MIB.",
                               "The value given has the wrong type or length",
                               "This variable is read only",
                               "A general failure occured",
                               "Unknown Error"};
  for (int32_t status = -1; status <= 6; ++status) {
    EXPECT_STREQ(snmp_errstring(status), texts[status + 1]);
    EXPECT_TRUE(status < 0 || status > 5 || snmp_errstring(status) == error_string[status]);
  }
}

}  // namespace

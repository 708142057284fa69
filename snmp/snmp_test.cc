#include "snmp/snmp.h"

#include <gtest/gtest.h>

#include "snmp/asn1.h"
#include "snmp/snmp_pdu.h"
#include "snmp/snmp_session.h"
#include "tests/fakes.h"
#include "tests/machine.h"
#include "tests/work.h"

namespace {

const fakes::NumberedTexts numbered;

snmp_session session;

// Decodes `message`, which comes to `result`.
unique_pdu decode(const std::string& message, SnmpParse result = SnmpParse::kDone) {
  // Of exactly its size: the sanitizers see reads past it.
  const std::vector<uint8_t> packet(message.begin(), message.end());
  unique_pdu pdu(snmp_pdu_create(0));
  EXPECT_EQ(snmp_parse_packet(&session, pdu.get(), packet), result);
  return pdu;
}
void expect_mangled(const std::string& message) { decode(message, SnmpParse::kMangled); }

// The message of `pdu`, built in `room` bytes; empty when that fails.
std::string build(const unique_pdu& pdu, size_t room = 200, std::string community = "public") {
  session.community = reinterpret_cast<uint8_t*>(community.data());
  session.community_length = static_cast<int32_t>(community.size());
  std::vector<uint8_t> packet(room + 1);
  auto length = static_cast<int32_t>(room);
  const int result = snmp_build_packet(&session, pdu.get(), packet.data(), &length);
  EXPECT_EQ(packet.back(), 0);  // what is behind the room stays
  return result != -1 ? std::string(packet.begin(), packet.begin() + length) : "";
}

// Messages put together by hand.
std::string message(const std::string& pdu, const std::string& community = "public") {
  return ber(kAsnSequence, from_hex("020100") + ber(kAsnOctetString, community) + pdu);
}
std::string response_pdu(const std::string& bindings) {
  return ber(kSnmpGetResponse, from_hex("020107 020102 020103") + ber(kAsnSequence, bindings));
}
std::string response(const std::string& bindings) { return message(response_pdu(bindings)); }
std::string binding(const std::string& value) {
  return ber(kAsnSequence, from_hex("06022B06" + value));
}
std::string text(size_t length) {
  return binding(to_hex(ber(kAsnOctetString, std::string(length, 'z'))));
}

const std::string kTrap = from_hex(
    "30 3F 02 01 00 04 06 70 75 62 6C 69 63 A4 32 06 07 2B 06 01 04 01 A7 3B 40 04 0A 01 02 03"
    "02 01 06 02 01 01 43 02 30 39 30 17 30 15 06 08 2B 06 01 02 01 01 01 00 04 09 64 69 73 6B"
    "20 66 75 6C 6C");

TEST(SnmpMessage, NeedsItsRoomAndItsEnd) {
  const unique_pdu pdu(snmp_clone_pdu(decode(kTrap).get()));
  EXPECT_EQ(build(pdu, kTrap.size()), kTrap);
  for (size_t size = 0; size < kTrap.size(); ++size) {
    EXPECT_EQ(build(pdu, size), "");
    expect_mangled(kTrap.substr(0, size));
  }
}

TEST(SnmpMessage, AValueIsSentInItsShortestForm) {
  const std::string widest = "2B8FFFFFFF7F" + std::string(116, '1');  // 64 bytes
  const struct {
    std::string received, sent = received;
  } rows[] = {
      {"02047FFFFFFF"},
      {"0201FF"},
      {"430480000000"},
      {"0403610062"},
      {"4004C0000201"},
      {"0500"},
      {"06092B7F8100FF7F818101"},
      {"0640" + widest},
      {"063F" + std::string(126, '1')},
      {"04880000000000000000", "0400"},
      {"0205007FFFFFFF", "02047FFFFFFF"},
      {"430500FFFFFFFF", "4301FF"},
      {"06058FFFFFFF7F", "06029F7F"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.received);
    const unique_pdu copy(snmp_clone_pdu(decode(response(binding(row.received))).get()));
    EXPECT_EQ(to_hex(build(copy)), to_hex(response(binding(row.sent))));
  }
  EXPECT_EQ(build(decode(response(binding("0641" + widest + "01")))), "");
}

TEST(SnmpMessage, WithAMalformedItemItIsMangled) {
  const std::string items[] = {
      "02",                            // no length
      "0280010000",                    // no definite length
      "040261",                        // fewer contents than claimed
      "02830105",                      // fewer length bytes than claimed
      "0284FFFFFFFF05",                // a length of 32 bits
      "0200",                          // an integer without contents
      "0600",                          // an object identifier without contents
      "028900000000000000000105",      // a length of nine bytes
      "1F81010105",                    // a tag of several bytes
      "02050100000000",                // a number of 33 bits
      "06032B8080",                    // one without its end
      "06062B9080808000",              // a sub-identifier of 33 bits
      "0640" + std::string(128, '1'),  // 65 sub-identifiers
  };
  for (const std::string& item : items) {
    SCOPED_TRACE(item);
    expect_mangled(response(binding(item)));
  }
  expect_mangled(response("\x05"));  // no binding
  expect_mangled(message(response_pdu(""), std::string(128, 'c')));
  // An agent address of 3 bytes.
  expect_mangled(message(from_hex("A413 06012B 40030A0102 020101 020101 430101 3000")));
}

TEST(SnmpMessage, WithAWrongTagOrLengthItIsMangled) {
  // All tags, and the lengths of items that hold others.
  for (auto place : {0U, 2U, 5U, 13U, 15U, 24U, 30U, 33U, 36U, 40U, 42U, 44U, 1U, 14U, 41U, 43U}) {
    SCOPED_TRACE(place);
    std::string more = kTrap, less = kTrap;
    ++more[place];
    --less[place];
    expect_mangled(more);
    expect_mangled(less);
  }
}

TEST(SnmpMessage, DecodesWhatItCan) {
  const std::string good = response_pdu(binding("020105")), same = message(good);
  std::string other_version = same;
  other_version[4] = 1;
  const struct {
    std::string received, report, sent;
  } rows[] = {
      {other_version, "[41.61] Wrong version: 1\n[41.62] Continuing anyway\n", same},
      {response(binding("460105")), "[41.63] bad type returned (46)\n", ""},
      {response(binding("020105 FF")), "", same},  // bytes behind the value
      {message(good, std::string(127, 'c')), "", same},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(printed(0, [&] { EXPECT_EQ(build(decode(row.received)), row.sent); }), row.report);
  }
}

TEST(SnmpMessage, IsDroppedWhenTheHookRefuses) {
  session.auth_hook = [](const uint8_t* at, int32_t* /*left*/, const uint8_t* community, int32_t) {
    return reinterpret_cast<const char*>(community) == std::string("public") ? nullptr : at;
  };
  decode(kTrap, SnmpParse::kDropped);
  session.auth_hook = nullptr;
}

TEST(SnmpMessage, ItsLengthsHaveOneToThreeBytes) {
  for (size_t length = 0; length < 300; ++length) {
    SCOPED_TRACE(length);
    const std::string whole = response(text(length) + text(length));
    const unique_pdu pdu = decode(whole);
    ASSERT_EQ(build(pdu, whole.size()), whole);
    for (size_t less : {1U, 2U, 4U}) ASSERT_EQ(build(pdu, whole.size() - less), "");
  }
}

TEST(SnmpMessage, APduHasAtMost4500Bytes) {
  const unique_pdu largest = decode(response(text(4471)));
  for (const std::string& community : {std::string(), std::string(300, 'c')}) {
    EXPECT_EQ(build(largest, 5000, community), message(response_pdu(text(4471)), community));
  }
  EXPECT_EQ(build(decode(response(text(4472))), 5000), "");
}

// The trap kTrap with another text.
std::string trap(const std::string& text) {
  const uint64_t enterprise[] = {1, 3, 6, 1, 4, 1, 5051}, name[] = {1, 3, 6, 1, 2, 1, 1, 1, 0};
  std::string packet(70000, '\0');
  auto size = static_cast<int32_t>(packet.size());
  packet.resize(static_cast<size_t>(snmp_build_trap(
      reinterpret_cast<uint8_t*>(packet.data()), &size, enterprise, 7, htonl(0x0A010203), 6, 1,
      12345, name, 9, kAsnOctetString, static_cast<int32_t>(text.size()), text.data())));
  return packet;
}

TEST(SnmpMessage, ATrapHasUpTo65535Bytes) {
  EXPECT_EQ(trap("disk full"), kTrap);
  EXPECT_EQ(trap(std::string(65473, 'z')).size(), 4 + 65535);
  EXPECT_EQ(trap(std::string(65474, 'z')), "");
}

// A fixed PDU of a response that blames its binding at `index`; their names are 1, 2 and 3.
unique_pdu fixed(long index, uint64_t names = 3, long status = 2) {
  const unique_pdu pdu(snmp_pdu_create(kSnmpGetResponse));
  pdu->request_id = 7;
  pdu->error_status = status;
  pdu->error_index = index;
  for (uint64_t name = 1; name <= names; ++name) snmp_add_null_var(pdu.get(), &name, 1);
  return unique_pdu(snmp_fix_pdu(pdu.get(), kSnmpGetNextRequest));
}

TEST(SnmpPdu, FixLeavesOutTheBindingInError) {
  const unique_pdu request = fixed(3);
  EXPECT_EQ(request->command, kSnmpGetNextRequest);
  EXPECT_EQ(request->request_id, 0);
  EXPECT_EQ(request->error_status, -1);
  EXPECT_EQ(request->error_index, -1);
  EXPECT_EQ(request->variables->name[0], 1);
  EXPECT_EQ(request->variables->next->name[0], 2);
  EXPECT_EQ(request->variables->next->next, nullptr);
  EXPECT_EQ(fixed(1, 2)->variables->name[0], 2);
  EXPECT_EQ(fixed(0), nullptr);
  EXPECT_EQ(fixed(4), nullptr);
  EXPECT_EQ(fixed(1, 3, 0), nullptr);
  EXPECT_EQ(fixed(1, 1), nullptr) << "none is left";
}

TEST(SnmpPdu, NamesItsErrorStatus) {
  EXPECT_STREQ(snmp_errstring(0), "No Error");
  EXPECT_STREQ(snmp_errstring(5), "A general failure occured");
  for (int32_t unknown : {-1, 6}) EXPECT_STREQ(snmp_errstring(unknown), "Unknown Error");
}

TEST(SnmpPdu, IsWholeOrNotMadeWithoutMemory) {
  for (const std::string& bytes : {kTrap, response(binding("06022B06") + binding("020105"))}) {
    auto make = [&](const fakes::FailingMalloc& failing) {
      const unique_pdu pdu(snmp_pdu_create(0));
      if (pdu == nullptr) return;
      const std::vector<uint8_t> packet(bytes.begin(), bytes.end());
      const bool is_parsed = snmp_parse_packet(&session, pdu.get(), packet) == SnmpParse::kDone;
      const unique_pdu copy(is_parsed ? snmp_clone_pdu(pdu.get()) : nullptr);
      EXPECT_EQ(copy != nullptr, !failing.failed());
    };
    EXPECT_EQ(fakes::pieces_left_by([&] { fakes::refuse_each_allocation(make); }), 0);
  }
}

}  // namespace

#include "snmp/snmp.h"

#include <gmock/gmock.h>

#include <climits>

#include "snmp/asn1.h"
#include "snmp/snmp_auth.h"
#include "snmp/snmp_pdu.h"
#include "snmp/snmp_session.h"
#include "tests/fakes.h"
#include "tests/machine.h"

namespace {

const fakes::NumberedTexts numbered;

std::string community;  // of the message decoded last, with the byte behind it

// Drops a message of "private" and skips 2 bytes behind "more".
const uint8_t* filter(const uint8_t* at, int32_t* left, const uint8_t* bytes, int32_t length) {
  community = {bytes, bytes + length + 1};
  if (community.starts_with("private")) return nullptr;
  if (!community.starts_with("more")) return at;
  *left -= 2;
  return at + 2;
}

struct Decoded {
  SnmpParse result;
  std::string reports;
  unique_pdu pdu;
};

Decoded decode(const std::string& message) {
  snmp_session session;
  session.auth_hook = filter;
  // Of exactly its size: the sanitizers see reads past it.
  const std::vector<uint8_t> packet(message.begin(), message.end());
  unique_pdu pdu(snmp_pdu_create(0));
  testing::internal::CaptureStderr();
  const SnmpParse result = snmp_parse_packet(&session, pdu.get(), packet);
  return {result, testing::internal::GetCapturedStderr(), std::move(pdu)};
}
SnmpParse result_of(const std::string& message) { return decode(message).result; }

// The message of `pdu`, built in `room` bytes; empty when that fails.
std::string build(const unique_pdu& pdu, size_t room = 200, std::string by = "public") {
  snmp_session session;
  session.community = reinterpret_cast<uint8_t*>(by.data());
  session.community_length = static_cast<int32_t>(by.size());
  std::string packet(room + 1, '\0');
  auto length = static_cast<int32_t>(room);
  auto* at = reinterpret_cast<uint8_t*>(packet.data());
  const int result = snmp_build_packet(&session, pdu.get(), at, &length);
  EXPECT_EQ(packet.back(), '\0');  // what is behind the room stays
  return result == 0 ? packet.substr(0, static_cast<size_t>(length)) : "";
}

std::string dotted(const uint64_t* subids, int32_t count) {
  std::string text = std::to_string(subids[0]);
  for (int32_t i = 1; i < count; ++i) text += "." + std::to_string(subids[i]);
  return text;
}

// Object identifiers with dots, numbers as such, and other bytes in hex.
std::string value_of(const snmp_var& var) {
  const auto length = static_cast<size_t>(var.value_length);
  if (var.type == kAsnObjectId) {
    return dotted(static_cast<uint64_t*>(var.value), var.value_length / 8);
  }
  if (var.type == kAsnInteger || (var.type >= kSnmpCounter && var.type <= kSnmpTimeTicks)) {
    EXPECT_EQ(length, sizeof(long));
    return std::to_string(*static_cast<long*>(var.value));
  }
  return to_hex({static_cast<char*>(var.value), length});
}

// Messages put together by hand: of a PDU, of a response with bindings, of a trap with none.
std::string message(const std::string& pdu, const std::string& by = "public",
                    const std::string& version = "020100") {
  return from_hex("30(" + version + "04(" + to_hex(by) + ")" + pdu + ")");
}
std::string response(const std::string& bindings, const std::string& by = "public",
                     const std::string& version = "020100") {
  return message("A2(020107 020102 020103 30(" + bindings + "))", by, version);
}
std::string trap(const std::string& fields) { return message("A4(" + fields + "3000)"); }
std::string binding(const std::string& value) { return "30(06022B06 " + value + ")"; }

std::string repeated(int times, const std::string& text) {
  return times == 0 ? "" : text + repeated(times - 1, text);
}

// `count` bindings of texts of `length` bytes.
std::string texts(int count, size_t length) {
  return repeated(count, "30(06082B06010201010100 04('" + std::string(length, 'z') + "'))");
}

const std::string kReferenceTrap = from_hex(
    "30 3F 02 01 00 04 06 70 75 62 6C 69 63 A4 32 06 07 2B 06 01 04 01 A7 3B 40 04 0A 01 02 03"
    "02 01 06 02 01 01 43 02 30 39 30 17 30 15 06 08 2B 06 01 02 01 01 01 00 04 09 64 69 73 6B"
    "20 66 75 6C 6C");
TEST(SnmpMessage, ComesBackAsItWentInTheRoomItNeeds) {
  for (const std::string& sent :
       {kReferenceTrap, trap("06012B 40040000FFFF 0201FF 020180 430480000000")}) {
    const Decoded decoded = decode(sent);
    ASSERT_EQ(decoded.result, SnmpParse::kDone);
    EXPECT_EQ(community, std::string("public\0", 7));
    const unique_pdu copy(snmp_clone_pdu(decoded.pdu.get()));
    EXPECT_EQ(to_hex(build(copy, sent.size())), to_hex(sent));
    for (size_t less = 0; less < sent.size(); ++less) {
      EXPECT_EQ(build(copy, less), "");
      EXPECT_EQ(result_of(sent.substr(0, less)), SnmpParse::kMangled);
    }
  }
}

struct Value {
  std::string item, text;
  std::string built = item;  // what we send for it
};

// The name of a row in what ctest prints.
void PrintTo(const Value& value, std::ostream* out) { *out << value.item; }

class SnmpValue : public testing::TestWithParam<Value> {};

TEST_P(SnmpValue, IsDecodedAndBuilt) {
  const Decoded decoded = decode(response(binding(GetParam().item)));
  ASSERT_EQ(decoded.result, SnmpParse::kDone);
  EXPECT_EQ(value_of(*decoded.pdu->variables), GetParam().text);
  const unique_pdu copy(snmp_clone_pdu(decoded.pdu.get()));
  const std::string& built = GetParam().built;
  EXPECT_EQ(build(copy), built.empty() ? "" : response(binding(built)));
}

// Object identifiers at their limits, 64 bytes and 64 sub-identifiers.
const std::string kWidest = "1.3.1.1.1" + repeated(12, ".4294967295");
const std::string kWide = "2B010101" + repeated(12, "8FFFFFFF7F");

INSTANTIATE_TEST_SUITE_P(, SnmpValue,
                         testing::ValuesIn(std::vector<Value>{
                             {"020100", "0"},
                             {"02017F", "127"},
                             {"02020080", "128"},
                             {"0203008000", "32768"},
                             {"02047FFFFFFF", "2147483647"},
                             {"0201FF", "-1"},
                             {"020180", "-128"},
                             {"0202FF7F", "-129"},
                             {"41020080", "128"},
                             {"4201FF", "-1"},
                             {"430480000000", "-2147483648"},
                             {"0400", ""},
                             {"0403610062", "610062"},
                             {"4004C0000201", "C0000201"},
                             {"44020500", "0500"},
                             {"0500", ""},
                             {"060100", "0.0"},
                             {"060177", "2.39"},
                             {"06072B06010401A73B", "1.3.6.1.4.1.5051"},
                             {"06092B7F8100FF7F818000", "1.3.127.128.16383.16384"},
                             {"0640" + kWide, kWidest},
                             {"063F29" + repeated(62, "01"), "1.1" + repeated(62, ".1")},
                             // What we send in another form, or cannot send.
                             {"0282000105", "5", "020105"},
                             {"0288000000000000000105", "5", "020105"},
                             {"0205007FFFFFFF", "2147483647", "02047FFFFFFF"},
                             {"430500FFFFFFFF", "4294967295", "4301FF"},
                             {"43050080000000", "2147483648", "430480000000"},
                             {"06058FFFFFFF7F", "102.15", "06029F7F"},
                             {"0602D000", "0.0", "060100"},
                             {"0641" + kWide + "01", kWidest + ".1", ""},
                         }));

TEST(SnmpMessage, MalformedValuesAreMangled) {
  const std::vector<std::string> items = {"0640" + repeated(64, "01"),
                                          "4305FFFFFFFFFF",
                                          "02050100000000",
                                          "0206000000000001",
                                          "028900000000000000000105",
                                          "0280010000",
                                          "0284FFFFFFFF05",
                                          "0200",
                                          "1F81010105",
                                          "02",
                                          "5F0105",
                                          "0102",
                                          "0204050607",
                                          "02830105",
                                          "040261",
                                          "058000",
                                          "06062B9080808000",
                                          "06032B8080",
                                          "0600",
                                          "06092B06"};
  for (const std::string& item : items) {
    EXPECT_EQ(result_of(response(binding(item))), SnmpParse::kMangled) << item;
  }
}

TEST(SnmpMessage, DecodesWhatItCan) {
  const std::string good = binding("020105");
  const std::string wrong = "[41.61] Wrong version: 1\n[41.62] Continuing anyway\n";
  const struct {
    const char* name;
    std::string message;
    SnmpParse result = SnmpParse::kDone;
    std::string reports{};
  } rows[] = {
      {"another version", response(good, "", "020101"), SnmpParse::kDone, wrong},
      {"the hook drops", response(good, "private", "020101"), SnmpParse::kDropped, wrong},
      {"the hook goes on", message("0500 A2(020107 020102 020103 30(" + good + "))", "more")},
      {"an unknown type", response(binding("460105") + good), SnmpParse::kDone,
       "[41.63] bad type returned (46)\n"},
      {"bytes behind a value", response("30(06022B06 020105 FF)" + good)},
      {"a NULL with contents", response(binding("05('123')") + good)},
      {"a community of 127 bytes", response(good, std::string(127, 'c'))},
      {"a community of 128 bytes", response(good, std::string(128, 'c')), SnmpParse::kMangled},
      {"more claimed than there is", response("3008 06022B06 020105"), SnmpParse::kMangled},
      {"no name", response("30(0600 0500)"), SnmpParse::kMangled},
      {"a byte that is no binding", response(good + "05"), SnmpParse::kMangled},
      {"a short address", trap("06012B 40030A0102 020101 020101 430101"), SnmpParse::kMangled},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const Decoded decoded = decode(row.message);
    EXPECT_EQ(decoded.result, row.result);
    EXPECT_EQ(decoded.reports, row.reports);
    if (row.result != SnmpParse::kDone) continue;
    const snmp_var* last = decoded.pdu->variables;
    while (last->next != nullptr) last = last->next;
    EXPECT_EQ(value_of(*last), "5");
  }
  EXPECT_EQ(build(decode(response(binding("460105"))).pdu), "");
}

TEST(SnmpMessage, EveryTagButThePdusIsWhatItMustBe) {
  auto expect_mangled = [](std::string sent, std::initializer_list<size_t> places) {
    for (size_t place : places) {
      sent[place] ^= 1;
      EXPECT_EQ(result_of(sent), SnmpParse::kMangled) << place;
      sent[place] ^= 1;
    }
  };
  expect_mangled(kReferenceTrap, {0, 2, 5, 15, 24, 30, 33, 36, 40, 42, 44});
  expect_mangled(response(""), {15, 18, 21});
}

TEST(SnmpMessage, LengthsOfEverySize) {
  for (int count : {1, 2, 3}) {
    for (size_t length = 0; length < 300; ++length) {
      SCOPED_TRACE(std::to_string(count) + " bindings of " + std::to_string(length));
      const std::string whole = response(texts(count, length));
      const unique_pdu pdu = decode(whole).pdu;
      ASSERT_EQ(build(pdu, whole.size()), whole);
      for (size_t less : {1U, 2U, 4U}) ASSERT_EQ(build(pdu, whole.size() - less), "");
    }
  }
}

TEST(SnmpMessage, APduHasAtMost4500BytesAndItsMessageWhatTheRoomHolds) {
  EXPECT_EQ(build(decode(response(texts(1, 4466))).pdu, 5000), "");
  const std::string by(300, 'c');
  EXPECT_EQ(build(decode(response(texts(1, 4465))).pdu, 5000, by), response(texts(1, 4465), by));
}

TEST(SnmpAuth, RefusesImpossibleCommunities) {
  const long version = 0;
  uint8_t bytes[16];
  int32_t room = sizeof bytes;
  for (int32_t length : {-1, 65536, INT_MAX}) {
    EXPECT_EQ(snmp_auth_build(bytes, &room, bytes, &length, &version, 0), nullptr);
  }
}

TEST(SnmpMessage, ATrapIsBuiltInOneCall) {
  const uint64_t enterprise[] = {1, 3, 6, 1, 4, 1, 5051}, name[] = {1, 3, 6, 1, 2, 1, 1, 1, 0};
  for (size_t size : {75U, 200U, 5000U}) {  // the room passed in is the only limit
    const std::string text(size, 'z');
    const std::string whole = message(
        "A4(06072B06010401A73B 40040A010203 020106 020101 43023039 30(" + texts(1, size) + "))");
    std::vector<uint8_t> packet(whole.size());
    for (size_t less : {1U, 60U, 0U}) {
      auto length = static_cast<int32_t>(whole.size() - less);
      EXPECT_EQ(snmp_build_trap(packet.data(), &length, enterprise, 7, htonl(0x0A010203), 6, 1,
                                12345, name, 9, 4, static_cast<int32_t>(size), text.data()),
                less == 0 ? length : 0);
    }
    EXPECT_EQ(std::string(packet.begin(), packet.end()), whole);
  }
}

TEST(Asn1, ALengthNeedsItsRoomAndAtMost16Bits) {
  for (auto [length, room] :
       {std::pair(0, 0), {128, 1}, {256, 2}, {-1, 8}, {65536, 8}, {INT_MAX, 8}}) {
    uint8_t bytes[8];
    EXPECT_EQ(asn_build_length(bytes, &room, length), nullptr) << length;
  }
}

TEST(SnmpPdu, FixLeavesOutTheBindingInError) {
  for (long blamed : {1, 2, 3}) {
    const unique_pdu pdu = decode(response(texts(3, 1))).pdu;
    snmp_var* kept[] = {pdu->variables, pdu->variables->next, pdu->variables->next->next};
    for (uint64_t i = 0; i < 3; ++i) kept[i]->name[0] = i + 1;
    pdu->error_index = blamed;
    const unique_pdu fixed(snmp_fix_pdu(pdu.get(), kSnmpGetNextRequest));
    ASSERT_NE(fixed, nullptr);
    EXPECT_EQ(fixed->command, kSnmpGetNextRequest);
    EXPECT_EQ(fixed->request_id, 0);
    EXPECT_EQ(fixed->error_status, -1);
    EXPECT_EQ(fixed->error_index, -1);
    EXPECT_EQ(fixed->variables->name[0], blamed == 1 ? 2 : 1);
    EXPECT_EQ(fixed->variables->next->name[0], blamed == 3 ? 2 : 3);
    EXPECT_EQ(fixed->variables->next->next, nullptr);
  }
}

TEST(SnmpPdu, FixRefusesWhatBlamesNoneOfSeveralBindings) {
  const struct {
    const char* name;
    int bindings;
    uint8_t command;
    long status, index;
  } rows[] = {
      {"a request", 3, kSnmpGetRequest, 2, 2},
      {"no error", 3, kSnmpGetResponse, 0, 2},
      {"no binding", 3, kSnmpGetResponse, 2, 0},
      {"behind the last binding", 3, kSnmpGetResponse, 2, 4},
      {"the only binding", 1, kSnmpGetResponse, 2, 1},
  };
  for (const auto& row : rows) {
    const unique_pdu pdu = decode(response(texts(row.bindings, 1))).pdu;
    pdu->command = row.command;
    pdu->error_status = row.status;
    pdu->error_index = row.index;
    EXPECT_EQ(snmp_fix_pdu(pdu.get(), kSnmpGetRequest), nullptr) << row.name;
  }
}

TEST(SnmpPdu, IsWholeOrNotMadeWithoutMemory) {
  const std::string bytes = message("A4(06022B06 4004C0000201 020106 020101 430100 30(" +
                                    binding("06022B06") + binding("020105") + texts(1, 1) + "))");
  const std::vector<uint8_t> packet(bytes.begin(), bytes.end());
  const uint64_t name[] = {1, 3, 6};
  const long value = 5;
  const snmp_session session;
  auto make = [&](const fakes::FailingMalloc& failing) {
    const unique_pdu pdu(snmp_pdu_create(0));
    if (pdu == nullptr) return;
    const bool is_parsed = snmp_parse_packet(&session, pdu.get(), packet) == SnmpParse::kDone;
    const unique_pdu copy(is_parsed ? snmp_clone_pdu(pdu.get()) : nullptr);
    if (copy == nullptr) return;
    const bool is_added = snmp_add_var(copy.get(), name, kAsnInteger, &value, sizeof value);
    EXPECT_EQ(is_added, !failing.failed());
    EXPECT_EQ(copy->variables->next->next->next != nullptr, is_added);
  };
  EXPECT_EQ(fakes::pieces_left_by([&] { fakes::refuse_each_allocation(make); }), 0);
}

}  // namespace

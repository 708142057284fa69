#include "snmp/snmp.h"

#include <climits>
#include <sstream>

#include "snmp/asn1.h"
#include "snmp/snmp_auth.h"
#include "snmp/snmp_pdu.h"
#include "snmp/snmp_session.h"
#include "tests/fakes.h"
#include "tests/machine.h"

namespace {

const fakes::NumberedTexts numbered;

// Of the message decoded last: its community, with the byte behind it, and its PDU.
std::string community;
unique_pdu pdu;

// Drops a message of "private" and skips 2 bytes behind "more".
const uint8_t* filter(const uint8_t* at, int32_t* left, const uint8_t* bytes, int32_t length) {
  community = {bytes, bytes + length + 1};
  if (community.starts_with("private")) return nullptr;
  if (!community.starts_with("more")) return at;
  *left -= 2;
  return at + 2;
}

std::string bytes_of(const void* bytes, int32_t length) {
  return {static_cast<const char*>(bytes), static_cast<size_t>(length)};
}

// The message of both, built in `room` bytes; empty when that fails.
std::string built(size_t room) {
  snmp_session session{};
  session.community = reinterpret_cast<uint8_t*>(community.data());
  session.community_length = static_cast<int32_t>(community.size()) - 1;
  std::vector<uint8_t> packet(room + 1);
  auto length = static_cast<int32_t>(room);
  const int result = snmp_build_packet(&session, pdu.get(), packet.data(), &length);
  EXPECT_EQ(packet.back(), 0);  // what is behind the room stays
  if (result != 0) return "";
  return bytes_of(packet.data(), length);
}

std::string dotted(const uint64_t* subids, int32_t count) {
  std::string text;
  for (int32_t i = 0; i < count; ++i) text += (i > 0 ? "." : "") + std::to_string(subids[i]);
  return text;
}

// Numbers as such, object identifiers with dots, and other bytes in hex.
std::string value_of(const snmp_var& var) {
  const auto* subids = static_cast<const uint64_t*>(var.value);
  if (var.type == kAsnObjectId) return dotted(subids, var.value_length / 8);
  if (var.type != kAsnInteger && (var.type < kSnmpCounter || var.type > kSnmpTimeTicks)) {
    return to_hex(bytes_of(var.value, var.value_length));
  }
  EXPECT_EQ(var.value_length, 8);
  return std::to_string(*static_cast<const long*>(var.value));
}

// A PDU as text: its fields, and every binding as name=type:value.
std::string text_of(const snmp_pdu& record) {
  std::ostringstream text;
  text << to_hex(bytes_of(&record.command, 1)) << ' ';
  if (record.command == kSnmpTrap) {
    text << dotted(record.enterprise, record.enterprise_length) << ' '
         << to_hex(bytes_of(&record.agent_address, 4)) << ' ' << record.generic_trap << ' '
         << record.specific_trap << ' ' << static_cast<long>(record.time_stamp);
  } else {
    text << record.request_id << ' ' << record.error_status << ' ' << record.error_index;
  }
  for (const snmp_var* var = record.variables; var != nullptr; var = var->next) {
    text << ' ' << dotted(var->name, var->name_length) << '=' << to_hex(bytes_of(&var->type, 1))
         << ':' << value_of(*var);
  }
  return text.str();
}

// What a message is decoded to, behind what is told of it.
std::string decoded(const std::string& sent) {
  snmp_session session{};
  session.auth_hook = filter;
  // Of exactly its size: reading past it is seen by the sanitizers.
  const std::vector<uint8_t> packet(sent.begin(), sent.end());
  pdu.reset(snmp_pdu_create(0));
  testing::internal::CaptureStderr();
  const SnmpParse result = snmp_parse_packet(&session, pdu.get(), packet);
  const std::string told = testing::internal::GetCapturedStderr();
  if (result == SnmpParse::kDone) return told + text_of(*pdu);
  return told + (result == SnmpParse::kMangled ? "mangled" : "dropped");
}

// A message, put together by hand, of a PDU; of a response with bindings; of a trap with none.
std::string message(const std::string& content, const std::string& by = "'public'",
                    const std::string& version = "020100") {
  return from_hex("30(" + version + "04(" + by + ")" + content + ")");
}
std::string response(const std::string& bindings, const std::string& by = "'public'",
                     const std::string& version = "020100") {
  return message("A2(020107 020102 020103 30(" + bindings + "))", by, version);
}
std::string trap(const std::string& fields) { return message("A4(" + fields + "3000)"); }

std::string repeated(int times, const std::string& text) {
  return times == 0 ? "" : text + repeated(times - 1, text);
}

// `count` bindings of texts of `length` bytes.
std::string texts(int count, size_t length) {
  return repeated(count, "30(06082B06010201010100 04('" + std::string(length, 'z') + "'))");
}

constexpr char kReference[] =
    "30 3F 02 01 00 04 06 70 75 62 6C 69 63 A4 32 06 07 2B 06 01 04 01 A7 3B 40 04 0A 01 02 03"
    "02 01 06 02 01 01 43 02 30 39 30 17 30 15 06 08 2B 06 01 02 01 01 01 00 04 09 64 69 73 6B"
    "20 66 75 6C 6C";
constexpr char kRequest[] =
    "30 26 02 01 00 04 06 70 75 62 6C 69 63 A0 19 02 01 05 02 01 00 02 01 00 30 0E 30 0C 06 08"
    "2B 06 01 02 01 01 01 00 05 00";

// Object identifiers at their limits, 64 bytes and 64 sub-identifiers, as text and in hex.
const std::string kWidest = "1.3.1.1.1" + repeated(12, ".4294967295");
const std::string kWide = "2B010101" + repeated(12, "8FFFFFFF7F");
const std::string kLongest = "1.1" + repeated(62, ".1"), kLong = "29" + repeated(62, "01");

TEST(SnmpMessage, ComesBackAsItWent) {
  // Values, each in the shortest form.
  std::istringstream rows(
      "020100=0 02017F=127 02020080=128 02027FFF=32767 0203008000=32768 02047FFFFFFF=2147483647 "
      "0201FF=-1 0201FE=-2 020180=-128 0202FF7F=-129 430480000000=-2147483648 4201FF=-1 "
      "41020080=128 0400= 040161=61 0403610062=610062 4004C0000201=C0000201 44020500=0500 0500= "
      "060100=0.0 060177=2.39 0602CF7F=255.39 06072B06010401A73B=1.3.6.1.4.1.5051 "
      "06092B7F8100FF7F818000=1.3.127.128.16383.16384 0640" +
      kWide + "=" + kWidest + " 063F" + kLong + "=" + kLongest);
  std::string values, listed = "A2 7 2 3";
  for (std::string row; rows >> row;) {
    const size_t end = row.find('=');
    values += "30(06022B06" + row.substr(0, end) + ")";
    listed += " 1.3.6=" + row.substr(0, 2) + ":" + row.substr(end + 1);
  }
  const std::pair<std::string, std::string> cases[] = {
      {from_hex(kReference),
       "A4 1.3.6.1.4.1.5051 0A010203 6 1 12345 1.3.6.1.2.1.1.1.0=04:6469736B2066756C6C"},
      {from_hex(kRequest), "A0 5 0 0 1.3.6.1.2.1.1.1.0=05:"},
      // What has the top bit set is below 0, whatever its type.
      {trap("06012B 40040000FFFF 0201FF 020180 430480000000"),
       "A4 1.3 0000FFFF -1 -128 -2147483648"},
      {response(values), listed},
      {response("30(06022B06 430480000000)"), "A2 7 2 3 1.3.6=43:-2147483648"},
      {response("", "610062"), "A2 7 2 3"},
      {response("", "'" + std::string(127, 'c') + "'"), "A2 7 2 3"},
  };
  for (const auto& [sent, text] : cases) {
    ASSERT_EQ(decoded(sent), text);
    EXPECT_EQ(community.back(), '\0');
    pdu.reset(snmp_clone_pdu(pdu.get()));
    EXPECT_EQ(text_of(*pdu), text);
    EXPECT_EQ(to_hex(built(sent.size())), to_hex(sent));
    for (size_t less = 0; less < sent.size(); ++less) EXPECT_EQ(built(less), "") << less;
    for (size_t less = 0; less < sent.size(); ++less) {
      EXPECT_EQ(decoded(sent.substr(0, less)), "mangled") << less;
    }
  }
}

TEST(SnmpMessage, DecodesWhatItCan) {
  const std::string good = "30(06022B06 020105)", done = "A2 7 2 3 1.3.6=02:5";
  const std::pair<std::string, std::string> cases[] = {
      {response(good, "'private'", "020101"),
       "[41.61] Wrong version: 1\n[41.62] Continuing anyway\ndropped"},
      {response(good, "", "0201FF"),
       "[41.61] Wrong version: -1\n[41.62] Continuing anyway\n" + done},
      {message("0500 A2(020107 020102 020103 30(" + good + "))", "'more'"), done},
      {response(good, "'" + std::string(128, 'c') + "'"), "mangled"},
      {response("30(06022B06 020105 0500)" + good), done + done.substr(8)},  // behind the value
      {response("30(06022B06 020105 FF)"), done},
      {response("30(06022B06 05('123'))" + good), "A2 7 2 3 1.3.6=05:" + done.substr(8)},
      {response("3008 06022B06 020105"), "mangled"},  // claims more than there is
      {response("30(0600 0500)"), "mangled"},         // no name
      {response(good + "05"), "mangled"},             // a byte that is no binding
      {trap("06012B 40030A0102 020101 020101 430101"), "mangled"},
  };
  for (const auto& [received, outcome] : cases) {
    EXPECT_EQ(decoded(received), outcome) << to_hex(received);
  }
  // Values that travel from us in another form (none: they cannot), and bytes that are no value.
  std::istringstream rows(
      "0282000105=5=020105 0205007FFFFFFF=2147483647=02047FFFFFFF 430500FFFFFFFF=4294967295=4301FF "
      "43050080000000=2147483648=430480000000 0288000000000000000105=5=020105 "
      "06058FFFFFFF7F=102.15=06029F7F 0602D000=0.0=060100 0641" +
      kWide + "01=" + kWidest + ".1=none 0640" + kLong + "01 " +
      "4305FFFFFFFFFF 02050100000000 0206000000000001 028900000000000000000105 0280010000 "
      "0284FFFFFFFF05 0200 1F81010105 02 05 5F0105 0102 0204050607 02830105 040261 040461 058000 "
      "06062B9080808000 06032B8080 0600 06092B06");
  for (std::string row, item, value, again; rows >> row; value = again = "") {
    std::istringstream parts(row);
    for (std::string* part : {&item, &value, &again}) std::getline(parts, *part, '=');
    const std::string text = "A2 7 2 3 1.3.6=" + item.substr(0, 2) + ":" + value;
    EXPECT_EQ(decoded(response("30(06022B06" + item + ")")), value.empty() ? "mangled" : text);
    if (again.empty()) continue;
    EXPECT_EQ(built(200), again == "none" ? "" : response("30(06022B06" + again + ")")) << row;
  }
  // Every tag but the PDU's is what it must be: those of the trap, then the request's own.
  for (size_t place : std::vector<size_t>{0, 2, 5, 15, 24, 30, 33, 36, 40, 42, 44, 115, 118, 121}) {
    std::string received = from_hex(place < 100 ? kReference : kRequest);
    received[place % 100] ^= 1;
    EXPECT_EQ(decoded(received), "mangled") << place;
  }
}

TEST(SnmpMessage, LengthsOfEverySize) {
  for (int count : {1, 2, 3}) {
    for (size_t length = 0; length < 300; ++length) {
      const std::string whole = response(texts(count, length));
      decoded(whole);
      ASSERT_EQ(built(whole.size()), whole) << count << " x " << length;
      for (size_t less : {1U, 2U, 4U}) {
        ASSERT_EQ(built(whole.size() - less), "") << count << " x " << length;
      }
    }
  }
  // A PDU has at most 4500 bytes; its message is limited by the room alone.
  decoded(response(texts(1, 4466)));
  EXPECT_EQ(built(5000), "");
  decoded(response(texts(1, 4465)));
  const std::string by(300, 'c');
  community = by + '\0';
  EXPECT_EQ(built(5000), response(texts(1, 4465), "'" + by + "'"));
  EXPECT_EQ(decoded(response("30(06022B06 460105)")),
            "[41.63] bad type returned (46)\nA2 7 2 3 1.3.6=46:");
  EXPECT_EQ(built(200), "");
}

TEST(SnmpMessage, AWrapperAndATrapInOneCallEach) {
  uint8_t start[20] = {'a', 'b', 'c'};
  int32_t room = 15, community_length = 3;
  const long version = 0;
  EXPECT_EQ(snmp_auth_build(start + 4, &room, start, &community_length, &version, 120), start + 15);
  EXPECT_EQ(room, 4);
  EXPECT_EQ(to_hex(bytes_of(start + 4, 11)), "3081800201000403616263");
  for (int32_t absurd : {-1, 65536, INT_MAX}) {
    EXPECT_EQ(snmp_auth_build(start, &room, start, &absurd, &version, 0), nullptr);
  }
  const uint64_t enterprise[] = {1, 3, 6, 1, 4, 1, 5051}, name[] = {1, 3, 6, 1, 2, 1, 1, 1, 0};
  for (size_t size : {9U, 75U, 200U, 5000U}) {  // the room passed in is the only limit
    const std::string text(size, 'z');
    const std::string whole = message(
        "A4(06072B06010401A73B 40040A010203 020106 020101 43023039 30(" + texts(1, size) + "))");
    std::vector<uint8_t> packet(whole.size());
    for (size_t less : {1U, 2U, 60U, 0U}) {
      auto length = static_cast<int32_t>(whole.size() - less);
      EXPECT_EQ(snmp_build_trap(packet.data(), &length, enterprise, 7, htonl(0x0A010203), 6, 1,
                                12345, name, 9, 4, static_cast<int32_t>(size), text.data()),
                less == 0 ? length : 0);
    }
    EXPECT_EQ(std::string(packet.begin(), packet.end()), whole);
  }
}

TEST(Asn1, NullsAndLengthsAlone) {
  // What is behind an item without contents; -1: it is none.
  const std::pair<const char*, int32_t> nulls[] = {{"0500", 0},    {"058100", 0},  {"050007", 1},
                                                   {"050100", -1}, {"058000", -1}, {"05", -1}};
  for (const auto& [hex, behind] : nulls) {
    const std::string bytes = from_hex(hex);
    auto left = static_cast<int32_t>(bytes.size());
    uint8_t tag = 0;
    const auto* at = reinterpret_cast<const uint8_t*>(bytes.data());
    const uint8_t* end = asn_parse_null(at, &left, &tag);
    EXPECT_EQ(end, behind < 0 ? nullptr : at + bytes.size() - behind) << hex;
    EXPECT_TRUE(behind < 0 || (left == behind && tag == 5)) << hex;
  }
  // Lengths, and a room that is too small or never large enough.
  for (auto [length, room] :
       {std::pair(0, 0), {128, 1}, {256, 2}, {-1, 8}, {65536, 8}, {INT_MAX, 8}}) {
    uint8_t bytes[8];
    EXPECT_EQ(asn_build_length(bytes, &room, length), nullptr) << length;
  }
}

TEST(SnmpPdu, FixLeavesOutTheBindingInError) {
  // Bindings, error index, error status, command, and the bindings left; none: no result.
  const std::tuple<uint64_t, long, long, uint8_t, std::string> cases[] = {
      {3, 1, 5, 0xA2, "23"}, {3, 2, 1, 0xA2, "13"}, {3, 3, 2, 0xA2, "12"},
      {3, 4, 2, 0xA2, ""},   {3, 0, 2, 0xA2, ""},   {3, 2, 0, 0xA2, ""},
      {3, 2, 2, 0xA0, ""},   {1, 1, 1, 0xA2, ""},   {2, 1, 1, 0xA2, "2"}};
  for (const auto& [bindings, index, status, command, left] : cases) {
    pdu.reset(snmp_pdu_create(command));
    EXPECT_EQ(text_of(*pdu).substr(2), " 0 -1 -1");
    uint64_t name[] = {1, 3, 0};
    while (++name[2] <= bindings) snmp_add_null_var(pdu.get(), name, 3);
    pdu->request_id = 9;
    pdu->error_index = index;
    pdu->error_status = status;
    std::string wanted = left.empty() ? "" : "A1 0 -1 -1";
    for (char kept : left) wanted += std::string(" 1.3.") + kept + "=05:";
    const unique_pdu fixed(snmp_fix_pdu(pdu.get(), 0xA1));
    EXPECT_EQ(fixed != nullptr ? text_of(*fixed) : "", wanted) << index << ' ' << status;
  }
}

}  // namespace

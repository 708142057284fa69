#include "snmp/asn1.h"

#include <sstream>

#include "tests/lab.h"

namespace {

// Items as text: their tag and their value, of a kind: number, string, object identifier,
// zero (without contents), header or length alone.
std::string built(char kind, const std::string& text) {
  const auto tag = static_cast<uint8_t>(std::stoi(text));
  const std::string value = text.substr(text.find(':') + 1);
  const long number = strchr("nhl", kind) != nullptr ? std::stol(value) : 0;
  const std::string bytes = kind == 's' ? from_hex(value) : "";
  std::vector<uint64_t> subids;
  std::istringstream dotted(kind == 'o' ? value : "");
  for (std::string subid; std::getline(dotted, subid, '.');) subids.push_back(std::stoul(subid));
  auto build = [&](uint8_t* at, int32_t* room) {
    auto length = static_cast<int32_t>(number);
    if (kind == 'n') return asn_build_int(at, room, tag, &number, sizeof number);
    if (kind == 'l') return asn_build_length(at, room, length);
    if (kind == 'h') return asn_build_header(at, room, tag, length);
    if (kind == 'z') return asn_build_null(at, room, tag);
    length = static_cast<int32_t>(kind == 's' ? bytes.size() : subids.size());
    if (kind == 'o') return asn_build_objid(at, room, tag, subids.data(), length);
    return asn_build_string(at, room, tag, reinterpret_cast<const uint8_t*>(bytes.data()), length);
  };
  uint8_t whole[200];
  int32_t room = sizeof whole;
  const uint8_t* end = build(whole, &room);
  if (end == nullptr) return "fails";
  const auto length = static_cast<int32_t>(end - whole);
  EXPECT_EQ(room, 200 - length);
  for (int32_t left = 0; left <= length; ++left) {
    std::vector<uint8_t> exact(static_cast<size_t>(left) + 1);
    EXPECT_EQ(build(exact.data(), &(room = left)) != nullptr, left == length) << left;
    EXPECT_EQ(exact.back(), 0);  // what is behind the room stays
  }
  return to_hex(std::string(&whole[0], &whole[length]));
}

// With `more` bytes behind the item, and room for 3 bytes or 7 sub-identifiers.
std::string parsed(char kind, const std::string& hex, int32_t more) {
  const std::string item = from_hex(hex) + std::string(static_cast<size_t>(more), '\x7F');
  const std::vector<uint8_t> exact(item.begin(), item.end());
  const uint8_t *at = exact.data(), *end = nullptr;
  auto left = static_cast<int32_t>(exact.size());
  uint8_t tag = 0, bytes[3];
  long number = 0;
  uint64_t length = 0, subids[7];
  int32_t count = kind == 's' ? 3 : 7;
  std::string value;
  if (kind == 'n' && (end = asn_parse_int(at, &left, &tag, &number, sizeof number))) {
    value = std::to_string(number);
  } else if (kind == 's' && (end = asn_parse_string(at, &left, &tag, bytes, &count))) {
    value = to_hex(std::string(bytes, bytes + count));
  } else if (kind == 'o' && (end = asn_parse_objid(at, &left, &tag, subids, &count))) {
    for (int32_t i = 0; i < count; ++i) value += (i > 0 ? "." : "") + std::to_string(subids[i]);
  } else if (kind == 'h' && (end = asn_parse_header(at, &left, &tag))) {
    value = std::to_string(left);
    end += std::exchange(left, more);
  } else if (kind == 'l' && (end = asn_parse_length(at, &length))) {
    value = std::to_string(length);
    left = more;
  } else if (kind == 'z') {
    end = asn_parse_null(at, &left, &tag);
  }
  if (end == nullptr) return "fails";
  EXPECT_EQ(end + more, at + exact.size());
  EXPECT_EQ(left, more);
  return std::to_string(tag) + ":" + value;
}

// Both ways, or only built (<) or parsed (>).
TEST(Asn1, ItemsAndTheirBytes) {
  std::istringstream rows(R"(
    n 2:0 = 020100   n 2:127 = 02017F   n 2:128 = 02020080   n 2:32767 = 02027FFF
    n 2:32768 = 0203008000   n 2:2147483647 = 02047FFFFFFF   n 2:-1 = 0201FF   n 2:-128 = 020180
    n 2:-129 = 0202FF7F   n 67:-2147483648 = 430480000000   n 2:2147483648 < 020480000000
    n 2:4294967295 < 0201FF   n 2:21474836481 < 020101   n 2:5 > 0282000105
    n 2:2147483647 > 0205007FFFFFFF   n 67:4294967295 > 430500FFFFFFFF   n 2:5 > 0288000000000000000105
    n fails > 4305FFFFFFFFFF   n fails > 02050100000000   n fails > 0206000000000001
    n fails > 028900000000000000000105   n fails > 0280010000   n fails > 0284FFFFFFFF05
    n fails > 0200   n fails > 1F81010105   n fails > 02   n fails > 5F0105   n fails > 0102
    n fails > 0204050607   n fails > 02830105
    s 4: = 0400   s 64:616263 = 4003616263   s 4:0061 = 04020061   s fails > 040461626364
    s fails > 040261
    z 5: = 0500   z 5: > 058100   z fails > 050100   z fails > 058000   z fails > 05   z fails > 1F00
    h 48:0 = 3000   h 160:3 > A003020105   h 48:1 > 308101FF   h 48:255 < 3081FF   h 0:-1 < fails
    h 0:65536 < fails   h fails > 3002FF   h fails > BF00   h fails > 30
    l 0:127 = 7F   l 0:128 = 8180   l 0:255 = 81FF   l 0:256 = 820100   l 0:4500 = 821194
    l 0:65535 = 82FFFF   l 0:-1 < fails   l 0:65536 < fails   l 0:2147483647 < fails
    o 6:1.3.6.1.4.1.5051 = 06072B06010401A73B   o 6:0.0 = 060100   o 6:2.39 = 060177
    o 6:1.3.127.128.16383.16384 = 06092B7F8100FF7F818000   o 6:1.3.4294967295 = 06062B8FFFFFFF7F
    o 6:1.3.18446744073709551615 < 060B2B81FFFFFFFFFFFFFFFF7F   o 6: < 0600   o 6:1 < 0600
    o 6:102.15 > 06058FFFFFFF7F   o 6:0.0 > 0602D000   o 6:255.39 > 0602CF7F
    o fails > 06062B9080808000   o fails > 06032B8080   o fails > 0600   o fails > 06092B06
    o fails > 06072B060102030405)");
  // 64 encoded bytes are the limit, and 64 sub-identifiers.
  std::string widest = "6:1.3.1.1.1", bytes = "06402B010101", longest = "6:1.1", ones = "063F29";
  for (int i = 0; i < 12; ++i) widest += ".4294967295", bytes += "8FFFFFFF7F";
  for (int i = 0; i < 62; ++i) longest += ".1", ones += "01";
  rows.str(rows.str() + " o " + widest + " < " + bytes + " o " + widest + ".1 < fails o " +
           longest + " < " + ones + " o " + longest + ".1 < fails");
  char kind = 0, way = 0;
  for (std::string text, hex; rows >> kind >> text >> way >> hex;) {
    SCOPED_TRACE(text + ' ' + hex);
    if (way != '>') {
      EXPECT_EQ(built(kind, text), hex);
    }
    for (int32_t more = 0; way != '<' && more < (text == "fails" ? 1 : 2); ++more) {
      EXPECT_EQ(parsed(kind, hex, more), text);
    }
  }
}

}  // namespace

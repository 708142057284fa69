#include "snmp/asn1.h"

#include <climits>
#include <functional>
#include <sstream>

#include "tests/lab.h"

namespace {

// Calls `work` with each pair of words of a table: something, and what becomes of it.
void each_of(const char* table, const std::function<void(std::string, std::string)>& work) {
  std::istringstream words(table);
  for (std::string given, wanted; words >> given >> wanted;) {
    SCOPED_TRACE(given);
    work(given, wanted);
  }
}

using Builder = std::function<uint8_t*(uint8_t*, int32_t*)>;

// Builds into exactly the room that is needed, and sees that every smaller room
// fails and is not overrun. Returns the item in hex.
std::string build(const Builder& builder) {
  uint8_t whole[70000];
  int32_t room = sizeof whole;
  uint8_t* end = builder(whole, &room);
  if (end == nullptr) return "fails";
  auto length = static_cast<int32_t>(end - whole);
  EXPECT_EQ(room, static_cast<int32_t>(sizeof whole) - length);
  for (int32_t less = 0; less < std::min(length, 200); ++less) {
    std::vector<uint8_t> exact(static_cast<size_t>(less));  // overruns are seen by sanitizers
    int32_t left = less;
    EXPECT_EQ(builder(exact.data(), &left), nullptr) << less << " of " << length;
  }
  return to_hex({reinterpret_cast<char*>(whole), static_cast<size_t>(length)});
}

TEST(Asn1, BuildsIntegers) {
  each_of(
      "0 020100  127 02017F  128 02020080  32767 02027FFF  32768 0203008000 "
      "2147483647 02047FFFFFFF  -1 0201FF  -128 020180  -129 0202FF7F "
      "2147483648 020480000000  4294967295 0201FF  21474836481 020101",
      [](const std::string& text, const std::string& hex) {
        const long value = std::stol(text);
        EXPECT_EQ(build([&](uint8_t* at, int32_t* room) {
                    return asn_build_int(at, room, 2, &value, sizeof value);
                  }),
                  hex);
      });
}

TEST(Asn1, BuildsObjectIdentifiers) {
  // 64 sub-identifiers are the limit, and 64 encoded bytes.
  const std::vector<uint64_t> longest(64, 1), longer(65, 1);
  std::vector<uint64_t> widest = {1, 3};
  widest.resize(14, 4294967295);  // 1 + 12 * 5 bytes
  widest.insert(widest.end(), 3, 1);
  std::vector<uint64_t> wider = widest;
  wider.push_back(1);
  std::string wide_bytes = "2B";
  for (int i = 0; i < 12; ++i) wide_bytes += "8FFFFFFF7F";
  const std::pair<std::vector<uint64_t>, std::string> cases[] = {
      {{1, 3, 6, 1, 4, 1, 5051}, "06072B06010401A73B"},
      {{0, 0}, "060100"},
      {{2, 39}, "060177"},
      {{1, 3, 127, 128, 16383, 16384}, "06092B7F8100FF7F818000"},
      {{1, 3, 4294967295}, "06062B8FFFFFFF7F"},
      {{1, 3, UINT64_MAX}, "060B2B81FFFFFFFFFFFFFFFF7F"},
      {{1}, "0600"},
      {longest, "063F29" + to_hex(std::string(62, '\1'))},
      {longer, "fails"},
      {widest, "0640" + wide_bytes + "010101"},
      {wider, "fails"},
  };
  for (const auto& [subids, hex] : cases) {
    EXPECT_EQ(build([&subids = subids](uint8_t* at, int32_t* room) {
                return asn_build_objid(at, room, 6, subids.data(),
                                       static_cast<int32_t>(subids.size()));
              }),
              hex);
  }
}

TEST(Asn1, BuildsLengthsAndStrings) {
  each_of(
      "0 00  127 7F  128 8180  255 81FF  256 820100  4500 821194  65535 82FFFF "
      "-1 fails  65536 fails  2147483647 fails",
      [](const std::string& decimal, const std::string& hex) {
        const int32_t length = std::stoi(decimal);
        EXPECT_EQ(
            build([=](uint8_t* at, int32_t* room) { return asn_build_length(at, room, length); }),
            hex);
        const std::string text(hex == "fails" ? 0 : static_cast<size_t>(length), 'x');
        EXPECT_EQ(build([&](uint8_t* at, int32_t* room) {
                    return asn_build_string(at, room, 4,
                                            reinterpret_cast<const uint8_t*>(text.data()), length);
                  }),
                  hex == "fails" ? hex : "04" + hex + to_hex(text));
        if (hex == "fails") return;
        const std::string bytes = from_hex(hex);
        uint64_t parsed = 0;
        const auto* at = reinterpret_cast<const uint8_t*>(bytes.data());
        EXPECT_EQ(asn_parse_length(at, &parsed), at + bytes.size());
        EXPECT_EQ(parsed, static_cast<uint64_t>(length));
      });
  EXPECT_EQ(build([](uint8_t* at, int32_t* room) { return asn_build_null(at, room, 5); }), "0500");
}

// What the parser of `kind` makes of the item at `at`: its tag and its value. Strings
// have room for 3 bytes, object identifiers for 7 sub-identifiers.
std::string parse(char kind, const uint8_t* at, int32_t* left, const uint8_t** end) {
  uint8_t tag = 0, bytes[3];
  long number = 0;
  uint64_t subids[7];
  int32_t count = kind == 's' ? 3 : 7;
  std::string value;
  if (kind == 'i') {
    *end = asn_parse_int(at, left, &tag, &number, sizeof number);
    value = std::to_string(number);
  } else if (kind == 's') {
    *end = asn_parse_string(at, left, &tag, bytes, &count);
    if (*end != nullptr) value = to_hex(std::string(bytes, bytes + count));
  } else if (kind == 'o') {
    *end = asn_parse_objid(at, left, &tag, subids, &count);
    for (int32_t i = 0; *end != nullptr && i < count; ++i) {
      value += (i > 0 ? "." : "") + std::to_string(subids[i]);
    }
  } else if (kind == 'n') {
    *end = asn_parse_null(at, left, &tag);
  } else {
    const int32_t whole = *left;
    *end = asn_parse_header(at, left, &tag);
    value = std::to_string(*left);
    if (*end != nullptr) {  // as if the contents had been parsed with the counter as bound
      *end += *left;
      *left = whole - static_cast<int32_t>(*end - at);
    }
  }
  return *end != nullptr ? std::to_string(tag) + ":" + value : "fails";
}

TEST(Asn1, Parses) {
  for (
      auto [kind, table] : {
          std::pair{'i',
                    "020100 2:0  0201FF 2:-1  02020080 2:128  020480000000 2:-2147483648 "
                    "4301FF 67:-1  0205007FFFFFFF 2:2147483647  020500FFFFFFFF 2:4294967295 "
                    "4305FFFFFFFFFF fails  02050100000000 fails  0206000000000001 fails"},
          // lengths longer than need be, indefinite, beyond the item, and none
          {'i',
           "0282000105 2:5  0288000000000000000105 2:5  028900000000000000000105 fails "
           "0280010000 fails  0284FFFFFFFF05 fails  0200 fails  1F81010105 fails  02 fails "
           "5F0105 fails  0102 fails  0204050607 fails  02830105 fails"},
          {'s', "0400 4:  4003616263 64:616263  040461626364 fails  040261 fails  04020061 4:0061"},
          {'n', "0500 5:  058100 5:  050100 fails  058000 fails  05 fails  1F00 fails"},
          {'h', "3000 48:0  A003020105 160:3  308101FF 48:1  3002FF fails  BF00 fails  30 fails"},
          // An object identifier of 2^32, without end, empty, cut, and of an eighth place.
          {'o',
           "06072B06010401A73B 6:1.3.6.1.4.1.5051  060100 6:0.0  060177 6:2.39 "
           "06062B8FFFFFFF7F 6:1.3.4294967295  06062B9080808000 fails  06032B8080 fails "
           "0600 fails  06092B06 fails  06072B060102030405 fails  06062B0601020304 6:1.3.6.1.2.3.4 "
           "06058FFFFFFF7F 6:102.15  0602D000 6:0.0  0602CF7F 6:255.39"},
      }) {
    each_of(table, [kind = kind](const std::string& hex, const std::string& wanted) {
      for (size_t more : {0U, 3U}) {
        const std::string item = from_hex(hex) + std::string(more, '\x7F');
        const std::vector<uint8_t> bytes(item.begin(), item.end());
        auto left = static_cast<int32_t>(bytes.size());
        const uint8_t* end = nullptr;
        if (wanted == "fails" && more > 0) continue;  // what is cut might end there
        EXPECT_EQ(parse(kind, bytes.data(), &left, &end), wanted);
        if (end == nullptr) continue;
        EXPECT_EQ(end + more, bytes.data() + bytes.size());
        EXPECT_EQ(left, static_cast<int32_t>(more));
      }
    });
  }
}

}  // namespace

#include "snmp/asn1.h"

#include <climits>
#include <functional>
#include <sstream>

#include "tests/lab.h"

namespace {

const uint8_t* bytes_of(const std::string& text) {
  return reinterpret_cast<const uint8_t*>(text.data());
}

// Calls `work` with each pair of words of a table: something, and what becomes of it.
void each_of(const char* table, const std::function<void(std::string, std::string)>& work) {
  std::istringstream words(table);
  for (std::string given, wanted; words >> given >> wanted;) work(given, wanted);
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
                    return asn_build_int(at, room, kAsnInteger, &value, sizeof value);
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
      {{1}, "0600"},
      {longest, "063F29" + to_hex(std::string(62, '\1'))},
      {longer, "fails"},
      {widest, "0640" + wide_bytes + "010101"},
      {wider, "fails"},
  };
  for (const auto& [subids, hex] : cases) {
    EXPECT_EQ(build([&subids = subids](uint8_t* at, int32_t* room) {
                return asn_build_objid(at, room, kAsnObjectId, subids.data(),
                                       static_cast<int32_t>(subids.size()));
              }),
              hex);
  }
}

TEST(Asn1, BuildsLengthsAndStrings) {
  for (auto [length, header] :
       {std::pair{0, "0400"}, {127, "047F"}, {128, "048180"}, {65535, "0482FFFF"}}) {
    const std::string text(static_cast<size_t>(length), 'x');
    EXPECT_EQ(build([&](uint8_t* at, int32_t* room) {
                return asn_build_string(at, room, kAsnOctetString, bytes_of(text),
                                        static_cast<int32_t>(text.size()));
              }),
              header + to_hex(text));
  }
  for (int32_t length : {-1, 65536, INT_MAX}) {
    uint8_t item[8];
    int32_t room = sizeof item;
    EXPECT_EQ(asn_build_header(item, &room, kAsnSequence, length), nullptr) << length;
  }
}

// What a parser makes of `hex` with trailing bytes behind it, as text.
using Parser = std::function<std::string(const uint8_t*, int32_t*, const uint8_t**)>;

void expect_parsed(const std::string& hex, const std::string& wanted, const Parser& parse) {
  SCOPED_TRACE(hex);
  const std::string item = from_hex(hex);
  for (size_t more : {0U, 3U}) {
    const std::string bytes = item + std::string(more, '\x7F');
    auto left = static_cast<int32_t>(bytes.size());
    const uint8_t* end = nullptr;
    std::string result = parse(bytes_of(bytes), &left, &end);
    EXPECT_EQ(end == nullptr ? "fails" : result, wanted);
    if (end == nullptr) continue;
    EXPECT_EQ(end, bytes_of(bytes) + item.size());
    EXPECT_EQ(left, static_cast<int32_t>(more));
  }
}

TEST(Asn1, ParsesIntegers) {
  for (const char* table :
       {"020100 2:0  0201FF 2:-1  02020080 2:128  020480000000 2:-2147483648  4301FF 67:-1",
        "020500FFFFFFFF 2:4294967295  02050100000000 fails  0206000000000001 fails",
        // lengths longer than need be, indefinite, beyond the item, and none
        "0282000105 2:5  0288000000000000000105 2:5  028900000000000000000105 fails",
        "0280010000 fails  0284FFFFFFFF05 fails  0200 fails",
        "1F81010105 fails  02 fails"}) {  // a tag of several bytes
    each_of(table, [](const std::string& hex, const std::string& wanted) {
      expect_parsed(hex, wanted, [](const uint8_t* at, int32_t* left, const uint8_t** end) {
        uint8_t tag = 0;
        long value = 0;
        *end = asn_parse_int(at, left, &tag, &value, sizeof value);
        return std::to_string(tag) + ":" + std::to_string(value);
      });
    });
  }
}

TEST(Asn1, ParsesObjectIdentifiers) {
  // Into seven places; what fails is 2^32, without end, empty, too short or an eighth.
  each_of(
      "06072B06010401A73B 1.3.6.1.4.1.5051  060100 0.0  060177 2.39  06062B8FFFFFFF7F "
      "1.3.4294967295  06062B9080808000 fails  06032B8080 fails  0600 fails  06092B06 fails "
      "06072B060102030405 fails",
      [](const std::string& hex, const std::string& wanted) {
        expect_parsed(hex, wanted, [](const uint8_t* at, int32_t* left, const uint8_t** end) {
          uint8_t tag = 0;
          uint64_t subids[7];
          int32_t count = std::size(subids);
          *end = asn_parse_objid(at, left, &tag, subids, &count);
          std::string dotted;
          for (int32_t i = 0; *end != nullptr && i < count; ++i) {
            dotted += (i > 0 ? "." : "") + std::to_string(subids[i]);
          }
          return dotted;
        });
      });
}

}  // namespace

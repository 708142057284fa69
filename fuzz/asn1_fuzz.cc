// Every BER parser on arbitrary bytes: it keeps to its item and room, and counts what it took.
#undef NDEBUG
#include <cassert>
#include <cstddef>
#include <vector>

#include "snmp/asn1.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<uint8_t> bytes(data, data + size);  // of its exact size: over-reads are seen
  for (const int32_t room : {0, 1, 2, 64, 4500}) {
    std::vector<uint8_t> text(static_cast<size_t>(room));
    std::vector<uint64_t> subids(static_cast<size_t>(room));
    int32_t count = room;
    long number = 0;
    auto check = [&](auto parse, auto... value) {
      uint8_t tag = 0;
      auto left = static_cast<int32_t>(size);
      count = room;
      const uint8_t* end = parse(bytes.data(), &left, &tag, value...);
      assert(end == nullptr || (left >= 0 && end + left == bytes.data() + size && count <= room));
    };
    check(asn_parse_int, &number, int32_t{sizeof number});
    check(asn_parse_null);
    check(asn_parse_string, text.data(), &count);
    check(asn_parse_objid, subids.data(), &count);
  }
  return 0;
}

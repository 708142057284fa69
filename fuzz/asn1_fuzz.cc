// Every BER parser on arbitrary bytes: it stays within its item, counts what it
// took, and what it decoded comes back the same after being built.
#undef NDEBUG
#include <cassert>
#include <cstdlib>
#include <vector>

#include "snmp/asn1.h"

namespace {

using Bytes = std::vector<uint8_t>;  // allocated to its exact size, so over-reads are seen

int32_t size_of(const auto& container) { return static_cast<int32_t>(container.size()); }

// `parse` and `build` undo each other, for values of at most `capacity` elements.
// What is built takes no more bytes than what came and exactly the room it needs.
template <typename T>
void round_trip(const Bytes& bytes, auto parse, auto build, int32_t capacity) {
  uint8_t tag = 0;
  std::vector<T> value(static_cast<size_t>(capacity));
  int32_t count = capacity;
  int32_t left = size_of(bytes);
  const uint8_t* end = parse(bytes.data(), &left, &tag, value.data(), &count);
  if (end == nullptr) return;
  assert(left >= 0 && end + left == bytes.data() + bytes.size());
  value.resize(static_cast<size_t>(count));

  Bytes item(static_cast<size_t>(end - bytes.data()));
  int32_t room = size_of(item);
  if (build(item.data(), &room, tag, value.data(), count) == nullptr) {
    assert(count > 13);  // only an object identifier, whose contents may pass 64 bytes
    return;
  }
  item.resize(item.size() - static_cast<size_t>(room));
  Bytes tight(item.size() - 1);
  room = size_of(tight);
  assert(build(tight.data(), &room, tag, value.data(), count) == nullptr);

  uint8_t tag_again = 0;
  std::vector<T> again(value.size());
  left = size_of(item);
  end = parse(item.data(), &left, &tag_again, again.data(), &count);
  assert(end == item.data() + item.size() && left == 0 && tag_again == tag && again == value);
}

// An integer is built from its low 32 bits.
const uint8_t* parse_int(const uint8_t* at, int32_t* left, uint8_t* tag, long* value, int32_t*) {
  at = asn_parse_int(at, left, tag, value, sizeof *value);
  assert(*value >= INT32_MIN && *value <= UINT32_MAX);
  *value = static_cast<int32_t>(*value);
  return at;
}

const uint8_t* parse_null(const uint8_t* at, int32_t* left, uint8_t* tag, void*, int32_t*) {
  return asn_parse_null(at, left, tag);
}

uint8_t* build_null(uint8_t* at, int32_t* room, uint8_t tag, const void*, int32_t) {
  return asn_build_null(at, room, tag);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Bytes bytes(data, data + size);
  round_trip<long>(bytes, parse_int, asn_build_int, 1);
  round_trip<long>(bytes, parse_null, build_null, 0);
  for (int32_t capacity : {0, 1, 2, 64, 4500}) {
    round_trip<uint8_t>(bytes, asn_parse_string, asn_build_string, capacity);
    round_trip<uint64_t>(bytes, asn_parse_objid, asn_build_objid, capacity);
  }
  uint8_t tag = 0;
  int32_t left = size_of(bytes);
  const uint8_t* contents = asn_parse_header(bytes.data(), &left, &tag);
  assert(contents == nullptr || (left >= 0 && contents + left <= bytes.data() + size));
  return 0;
}

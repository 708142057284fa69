// Every BER parser on arbitrary bytes: it stays within its item and counts what it took,
// and what it decoded stays the same when it is built, decoded and built again.
#undef NDEBUG
#include <cassert>
#include <cstddef>
#include <vector>

#include "snmp/asn1.h"

namespace {

using Bytes = std::vector<uint8_t>;  // allocated to its exact size, so over-reads are seen

int32_t size_of(const Bytes& bytes) { return static_cast<int32_t>(bytes.size()); }

// The item that `bytes` start with, built anew from its value of at most `capacity`
// elements; empty when it is refused, or is an object identifier too long to write.
template <typename T>
Bytes rebuilt(const Bytes& bytes, auto parse, auto build, int32_t capacity) {
  uint8_t tag = 0;
  std::vector<T> value(static_cast<size_t>(capacity));
  int32_t left = size_of(bytes);
  const uint8_t* end = parse(bytes.data(), &left, &tag, value.data(), &capacity);
  if (end == nullptr) return {};
  assert(left >= 0 && end + left == bytes.data() + bytes.size());
  Bytes item(static_cast<size_t>(end - bytes.data()));  // the shortest form needs no more
  int32_t room = size_of(item);
  if (build(item.data(), &room, tag, value.data(), capacity) == nullptr) {
    assert(capacity > 13);
    return {};
  }
  item.resize(item.size() - static_cast<size_t>(room));
  return item;
}

template <typename T>
void round_trip(const Bytes& bytes, auto parse, auto build, int32_t capacity) {
  const Bytes item = rebuilt<T>(bytes, parse, build, capacity);
  assert(item.empty() || rebuilt<T>(item, parse, build, capacity) == item);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Bytes bytes(data, data + size);
  // These two count no elements.
  const auto parse_int = [](auto at, auto left, auto tag, long* value, int32_t*) {
    return asn_parse_int(at, left, tag, value, sizeof *value);
  };
  const auto parse_null = [](auto at, auto left, auto tag, auto...) {
    return asn_parse_null(at, left, tag);
  };
  const auto build_null = [](auto at, auto room, uint8_t tag, auto...) {
    return asn_build_null(at, room, tag);
  };
  round_trip<long>(bytes, parse_int, asn_build_int, 1);
  round_trip<long>(bytes, parse_null, build_null, 0);
  for (int32_t capacity : {0, 1, 2, 64, 4500}) {
    round_trip<uint8_t>(bytes, asn_parse_string, asn_build_string, capacity);
    round_trip<uint64_t>(bytes, asn_parse_objid, asn_build_objid, capacity);
  }
  return 0;
}

#include "snmp/asn1.h"

#include <algorithm>

namespace {

constexpr uint8_t kMultiByteTag = 0x1F;  // low five bits of a tag that continues
constexpr uint64_t kLongForm = 0x80;     // a length byte that counts length bytes
constexpr uint8_t kMoreGroups = 0x80;    // not the last byte of a sub-identifier
constexpr uint8_t kSignBit = 0x80;
constexpr int kMaxLengthBytes = 8;
constexpr uint64_t kMaxSubid = 0xFFFFFFFF;
constexpr uint64_t kFirstArcFactor = 40;  // the first two arcs travel as 40 * a + b

// Contents of up to 64 bytes never need more header than a tag and one length
// byte, so the items that cannot grow longer put theirs in place at once.
constexpr int32_t kShortHeader = asn_header_size(kAsnMaxObjidBytes);
static_assert(kShortHeader == asn_header_size(0));

// Writes `number` in base 128, most significant group first. Returns the position past
// it, or null when it would pass `end`.
inline uint8_t* put_subid(uint8_t* at, const uint8_t* end, uint64_t number) {
  if (number > 0x7F) {
    int shift = 7;
    while (number >> shift > 0x7F) shift += 7;
    for (; shift > 0 && at != end; shift -= 7) {
      *at++ = static_cast<uint8_t>(kMoreGroups | number >> shift);
    }
  }
  if (at == end) return nullptr;
  *at++ = static_cast<uint8_t>(number & 0x7F);
  return at;
}

uint8_t* put_length(uint8_t* at, int32_t length) {
  if (length >= 0x100) {
    *at++ = 0x82;
    *at++ = static_cast<uint8_t>(length >> 8);
  } else if (length >= 0x80) {
    *at++ = 0x81;
  }
  *at++ = static_cast<uint8_t>(length);
  return at;
}

// Takes `bytes` off the counter; false when it holds fewer, and for no position.
bool take(const uint8_t* at, int32_t* room, int32_t bytes) {
  if (*room < bytes || at == nullptr) return false;
  *room -= bytes;
  return true;
}

bool can_build_length(int32_t length) { return length >= 0 && length <= kAsnMaxBuildLength; }

// The contents of an item; at null for none.
struct Contents {
  const uint8_t* at;
  int32_t length;
};

// Reads tag and length of an item that lies in `left` bytes whole. Inline, as an agent decodes
// many short items.
inline Contents parse_item(const uint8_t* at, int32_t left, uint8_t* tag) {
  if (at == nullptr || left < kShortHeader || (at[0] & kMultiByteTag) == kMultiByteTag) return {};
  *tag = at[0];
  uint64_t declared = at[1];
  const uint8_t* contents = at + kShortHeader;
  if ((declared & kLongForm) != 0) {
    if (static_cast<int32_t>(declared & ~kLongForm) > left - kShortHeader) return {};
    contents = asn_parse_length(at + 1, &declared);
    if (contents == nullptr) return {};
  }
  if (declared > static_cast<uint64_t>(left - (contents - at))) return {};
  return {contents, static_cast<int32_t>(declared)};
}

void consume(int32_t* left, const uint8_t* from, const uint8_t* to) {
  *left -= static_cast<int32_t>(to - from);
}

}  // namespace

uint8_t* asn_build_length(uint8_t* at, int32_t* room, int32_t length) {
  if (!can_build_length(length) || !take(at, room, asn_length_size(length))) return nullptr;
  return put_length(at, length);
}

uint8_t* asn_build_header(uint8_t* at, int32_t* room, uint8_t tag, int32_t length) {
  if (!can_build_length(length) || !take(at, room, asn_header_size(length))) return nullptr;
  *at = tag;
  return put_length(at + 1, length);
}

uint8_t* asn_build_int(uint8_t* at, int32_t* room, uint8_t tag, const long* value,
                       int32_t /*size*/) {
  auto number = static_cast<int32_t>(*value);
  int32_t bytes = asn_int_size(number);
  if (!take(at, room, kShortHeader + bytes)) return nullptr;
  *at++ = tag;
  *at++ = static_cast<uint8_t>(bytes);
  for (int32_t shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
    *at++ = static_cast<uint8_t>(number >> shift);
  }
  return at;
}

uint8_t* asn_build_string(uint8_t* at, int32_t* room, uint8_t tag, const uint8_t* bytes,
                          int32_t count) {
  if (!can_build_length(count) || !take(at, room, asn_header_size(count) + count)) return nullptr;
  *at = tag;
  at = put_length(at + 1, count);
  return std::copy_n(bytes, count, at);
}

uint8_t* asn_build_objid(uint8_t* at, int32_t* room, uint8_t tag, const uint64_t* subids,
                         int32_t count) {
  if (at == nullptr || count > kAsnMaxSubids || *room < kShortHeader) return nullptr;
  uint8_t* contents = at + kShortHeader;
  const uint8_t* end = contents + std::min(*room - kShortHeader, kAsnMaxObjidBytes);
  uint8_t* next = contents;
  if (count >= 2) next = put_subid(next, end, subids[0] * kFirstArcFactor + subids[1]);
  for (int32_t i = 2; next != nullptr && i < count; ++i) next = put_subid(next, end, subids[i]);
  if (next == nullptr) return nullptr;
  at[0] = tag;
  at[1] = static_cast<uint8_t>(next - contents);
  *room -= static_cast<int32_t>(next - at);
  return next;
}

uint8_t* asn_build_null(uint8_t* at, int32_t* room, uint8_t tag) {
  return asn_build_header(at, room, tag, 0);
}

const uint8_t* asn_parse_length(const uint8_t* at, uint64_t* length) {
  uint8_t first = *at++;
  if ((first & kLongForm) == 0) {
    *length = first;
    return at;
  }
  int bytes = first & ~kLongForm;
  if (bytes == 0 || bytes > kMaxLengthBytes) return nullptr;
  *length = 0;
  for (; bytes > 0; --bytes) *length = *length << 8 | *at++;
  return at;
}

const uint8_t* asn_parse_header(const uint8_t* at, int32_t* left, uint8_t* tag) {
  auto [contents, length] = parse_item(at, *left, tag);
  if (contents == nullptr) return nullptr;
  *left = length;
  return contents;
}

const uint8_t* asn_parse_int(const uint8_t* at, int32_t* left, uint8_t* tag, long* value,
                             int32_t /*size*/) {
  auto [contents, length] = parse_item(at, *left, tag);
  if (contents == nullptr || length == 0) return nullptr;
  bool leading_zero = length == 5 && *contents == 0;
  if (leading_zero) {
    ++contents;
    --length;
  }
  if (length > 4) return nullptr;
  const uint8_t* end = contents + length;
  consume(left, at, end);
  uint32_t number = (*contents & kSignBit) != 0 ? UINT32_MAX : 0;
  while (contents < end) number = number << 8 | *contents++;
  *value = leading_zero ? static_cast<long>(number) : static_cast<int32_t>(number);
  return end;
}

const uint8_t* asn_parse_string(const uint8_t* at, int32_t* left, uint8_t* tag, uint8_t* bytes,
                                int32_t* count) {
  auto [contents, length] = parse_item(at, *left, tag);
  if (contents == nullptr || length > *count) return nullptr;
  std::copy_n(contents, length, bytes);
  *count = length;
  consume(left, at, contents + length);
  return contents + length;
}

const uint8_t* asn_parse_objid(const uint8_t* at, int32_t* left, uint8_t* tag, uint64_t* subids,
                               int32_t* count) {
  auto [contents, length] = parse_item(at, *left, tag);
  if (contents == nullptr || length == 0) return nullptr;
  const uint8_t* end = contents + length;
  if ((end[-1] & kMoreGroups) != 0) return nullptr;
  consume(left, at, end);
  int32_t filled = 1;
  while (contents < end) {
    if (filled >= *count) return nullptr;
    uint64_t number = *contents & 0x7F;
    while ((*contents++ & kMoreGroups) != 0) {
      number = number << 7 | (*contents & 0x7F);
      if (number > kMaxSubid) return nullptr;
    }
    subids[filled++] = number;
  }
  uint64_t combined = subids[1];
  subids[0] = combined / kFirstArcFactor % 256;
  subids[1] = combined % kFirstArcFactor;
  *count = filled;
  return end;
}

const uint8_t* asn_parse_null(const uint8_t* at, int32_t* left, uint8_t* tag) {
  auto [contents, length] = parse_item(at, *left, tag);
  if (contents == nullptr || length != 0) return nullptr;
  consume(left, at, contents);
  return contents;
}

// BER items (tag, length, contents) in a caller's buffer: the lowest layer of the SNMP engine.
// X.690 with definite lengths and one-byte tags, which is all that SNMPv1 (RFC 1157) needs.
//
// Every builder and parser takes the position of its item and a counter of the bytes left
// there. It returns the position just past the item and takes what it used off the counter.
// On failure it returns null, and the caller has nothing to undo (a builder may have written
// a part of its item). Given a null position it returns null, so that a row of calls needs
// one check, at its end. Two of them treat the counter differently: asn_parse_length has
// none, and asn_parse_header replaces it. Every parser fails for an item that does not fit
// into its counter and for a tag of several bytes.
//
// Nothing is printed, kept or shared: all of it is thread safe.
#pragma once

#include <bit>
#include <cstdint>

// Tags: class, constructed bit and number in one byte.
constexpr uint8_t kAsnInteger = 0x02;
constexpr uint8_t kAsnOctetString = 0x04;
constexpr uint8_t kAsnNull = 0x05;
constexpr uint8_t kAsnObjectId = 0x06;
constexpr uint8_t kAsnSequence = 0x30;

constexpr int32_t kAsnMaxSubids = 64;          // sub-identifiers of one object identifier
constexpr int32_t kAsnMaxObjidBytes = 64;      // its encoded contents
constexpr int32_t kAsnMaxBuildLength = 65535;  // largest length that is written

/// Bytes that `length` (0 to 65535) takes in its shortest definite form, 1 to 3.
[[nodiscard]] constexpr int32_t asn_length_size(int32_t length) {
  return length < 0x80 ? 1 : length < 0x100 ? 2 : 3;
}

/// Bytes of the header of an item with `length` (0 to 65535) content bytes, 2 to 4.
[[nodiscard]] constexpr int32_t asn_header_size(int32_t length) {
  return 1 + asn_length_size(length);
}

/// How many content bytes, 1 to 4, the low 32 bits of `value` take in the shortest
/// two's-complement form.
[[nodiscard]] constexpr int32_t asn_int_size(long value) {
  auto number = static_cast<int32_t>(value);
  auto magnitude = static_cast<uint32_t>(number ^ (number >> 31));
  return static_cast<int32_t>(std::bit_width(magnitude)) / 8 + 1;
}

/// Writes `length` (0 to 65535) in the shortest definite form, 1 to 3 bytes.
/// Fails, with nothing written, when `*room` cannot hold that form.
[[nodiscard]] uint8_t* asn_build_length(uint8_t* at, int32_t* room, int32_t length);

/// Writes `tag` and `length`; the contents are the caller's to write after them.
[[nodiscard]] uint8_t* asn_build_header(uint8_t* at, int32_t* room, uint8_t tag, int32_t length);

/// Writes the low 32 bits of `*value` as a signed number in the shortest
/// two's-complement form, 1 to 4 bytes. The same form serves Counter, Gauge and
/// TimeTicks; a value of 2^31 or more is then written with its top bit set.
/// `size` (the bytes of `*value`) is not used; pass 8.
[[nodiscard]] uint8_t* asn_build_int(uint8_t* at, int32_t* room, uint8_t tag, const long* value,
                                     int32_t size);

/// Writes the `count` bytes at `bytes`, which may be null when `count` is 0.
[[nodiscard]] uint8_t* asn_build_string(uint8_t* at, int32_t* room, uint8_t tag,
                                        const uint8_t* bytes, int32_t count);

/// Writes an object identifier of `count` sub-identifiers; a count below 2 gives
/// empty contents. Fails for more than 64 of them and when the contents would
/// take more than 64 bytes.
[[nodiscard]] uint8_t* asn_build_objid(uint8_t* at, int32_t* room, uint8_t tag,
                                       const uint64_t* subids, int32_t count);

/// Writes an item without contents.
[[nodiscard]] uint8_t* asn_build_null(uint8_t* at, int32_t* room, uint8_t tag);

/// Reads the length that starts at `at` into `*length`. Fails for the indefinite
/// form and for more than 8 length bytes.
///
/// REQUIRES: the length bytes are there to read, which is one byte, and when it
/// is above 0x80 as many more as its low seven bits say.
[[nodiscard]] const uint8_t* asn_parse_length(const uint8_t* at, uint64_t* length);

/// Reads a tag and a length and returns the first content byte. `*left` is
/// replaced by the length, so that the contents are parsed with it as their
/// bound.
[[nodiscard]] const uint8_t* asn_parse_header(const uint8_t* at, int32_t* left, uint8_t* tag);

/// Reads an integer of 1 to 4 content bytes, sign-extended, or of 5 of which the
/// first is 0, which gives a value of 0 to 4294967295. `size` (the bytes of
/// `*value`) is not used; pass 8. An integer without contents has no value and
/// fails.
[[nodiscard]] const uint8_t* asn_parse_int(const uint8_t* at, int32_t* left, uint8_t* tag,
                                           long* value, int32_t size);

/// Copies the contents to `bytes`, at most `*count` of them, and stores their
/// number in `*count`. No terminator is added. Fails when they are more.
[[nodiscard]] const uint8_t* asn_parse_string(const uint8_t* at, int32_t* left, uint8_t* tag,
                                              uint8_t* bytes, int32_t* count);

/// Reads an object identifier into `subids`, which holds `*count` entries, and
/// stores the number of its sub-identifiers in `*count`. Fails when there are
/// more, when one is above 4294967295, when the last one has no end, and when
/// there are no contents.
[[nodiscard]] const uint8_t* asn_parse_objid(const uint8_t* at, int32_t* left, uint8_t* tag,
                                             uint64_t* subids, int32_t* count);

/// Reads an item without contents; fails when it has any.
[[nodiscard]] const uint8_t* asn_parse_null(const uint8_t* at, int32_t* left, uint8_t* tag);

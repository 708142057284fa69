// The filters of the basic types, and the streams that they work on.
#include "rpc/xdr/xdr.h"

#include <cstring>
#include <limits>

#include "tests/xdr_streams.h"

namespace {

using Hex = const char*;

// `value` goes out as `hex`, and comes back as `back`; nothing is written before all
// of it has come, and nothing at all when the operation is free.
template <auto filter, typename T>
void expect_wire(T value, Hex hex, T back) {
  EXPECT_EQ(encoded(xdr_filter<filter>, &value), hex);
  const std::string bytes = from_hex(hex);
  T object = {};
  EXPECT_FALSE(filter(TestStream(bytes.substr(1), xdr_op::kDecode).get(), &object)) << hex;
  EXPECT_EQ(object, T{}) << hex;
  EXPECT_TRUE(filter(TestStream(bytes, xdr_op::kDecode).get(), &object)) << hex;
  EXPECT_TRUE(filter(&__xdr, &object));
  EXPECT_EQ(object, back) << hex;
}

template <auto filter, typename T>
void expect_wire(T value, Hex hex) {
  expect_wire<filter>(value, hex, value);
}

TEST(Xdr, CarriesNumbers) {
  expect_wire<xdr_int32_t>(int32_t{-2}, "FFFFFFFE");
  expect_wire<xdr_uint32_t>(uint32_t{0x80000001}, "80000001");
  expect_wire<__brix_xdr_enum>(int32_t{0x01020304}, "01020304");
  expect_wire<__brix_xdr_int>(int32_t{INT32_MIN}, "80000000");
  expect_wire<__brix_xdr_u_int>(uint32_t{UINT32_MAX}, "FFFFFFFF");
  expect_wire<__brix_xdr_short>(int16_t{-2}, "FFFFFFFE");
  expect_wire<__brix_xdr_u_short>(uint16_t{0xFFFE}, "0000FFFE");
  expect_wire<__brix_xdr_char>('\xFE', "FFFFFFFE");
  expect_wire<__brix_xdr_bool>(int32_t{0}, "00000000");
  expect_wire<__brix_xdr_bool>(int32_t{-7}, "00000001", int32_t{1});
  expect_wire<__brix_xdr_long>(0x7FFFFFFFL, "7FFFFFFF");
  expect_wire<__brix_xdr_long>(-1L, "FFFFFFFF", 4294967295L);
  expect_wire<__brix_xdr_u_long>(0x11223344F5667788UL, "F5667788", 0xF5667788UL);
  expect_wire<xdr_shorten>(0x700000000 - 2, "FFFFFFFE", -2L);
  expect_wire<xdr_u_shorten>(0x7FFFFFFFEUL, "FFFFFFFE", 0xFFFFFFFEUL);
  expect_wire<__brix_xdr_time_t>(time_t{0x1FFFFFFFE}, "FFFFFFFE", time_t{-2});
  expect_wire<xdr_int64_t>(int64_t{-2}, "FFFFFFFFFFFFFFFE");
  expect_wire<xdr_uint64_t>(uint64_t{0x8102030405060708}, "8102030405060708");
  expect_wire<__brix_xdr_float>(std::numeric_limits<float>::denorm_min(), "00000001");
  expect_wire<__brix_xdr_double>(-1.5, "BFF8000000000000");

  // What comes in is cut to the width of the host's type.
  uint16_t narrow = 0;
  EXPECT_TRUE(__brix_xdr_u_short(TestStream("ABCD", xdr_op::kDecode).get(), &narrow));
  EXPECT_EQ(narrow, 0x4344);
  uint8_t digest[20] = {0xAB};
  for (xdrproc_t filter : {xdr_filter<xdr_sha_digest>, xdr_filter<xdr_vxui_t>}) {
    EXPECT_EQ(encoded(filter, digest), "AB" + std::string(38, '0'));
  }
}

struct Counted {
  uint8_t* bytes;
  uint32_t size;
  uint32_t maximum;
};

bool counted_filter(XDR* xdrs, Counted* counted) {
  return __brix_xdr_bytes(xdrs, &counted->bytes, &counted->size, counted->maximum);
}

TEST(Xdr, CarriesCountedBytes) {
  constexpr xdrproc_t kCounted = xdr_filter<counted_filter>;
  uint8_t five[] = {1, 2, 3, 4, 5};
  Counted counted = {five, 5, 5};
  EXPECT_EQ(encoded(kCounted, &counted), "000000050102030405000000");
  counted.maximum = 4;
  EXPECT_EQ(encoded(kCounted, &counted), "fails");
  counted = {nullptr, 5, 5};
  EXPECT_EQ(encoded(kCounted, &counted), "fails");

  const std::string wire = from_hex("00000005 0102030405 EEEEEE");
  for (bool supplied : {false, true}) {
    uint8_t own[5] = {};
    counted = {supplied ? own : nullptr, 99, 5};
    TestStream in(wire, xdr_op::kDecode);
    EXPECT_TRUE(counted_filter(in.get(), &counted));
    EXPECT_EQ(in.used(), 12u);
    EXPECT_EQ(counted.size, 5u);
    EXPECT_TRUE(std::equal(five, five + 5, counted.bytes));
    if (!supplied) __brix_xdr_free(kCounted, &counted);
  }
  counted = {nullptr, 0, 4};
  EXPECT_FALSE(counted_filter(TestStream(wire, xdr_op::kDecode).get(), &counted));
  expect_failures_release<Counted>(kCounted, wire, {nullptr, 0, 5});
}

TEST(Xdr, CarriesStrings) {
  constexpr xdrproc_t kString = xdr_filter<__brix_xdr_wrapstring>;
  const std::pair<const char*, Hex> kCases[] = {
      {"", "00000000"},
      {"a", "0000000161000000"},
      {"ab", "0000000261620000"},
      {"abc", "0000000361626300"},
      {"abcd", "0000000461626364"},
  };
  char* object = nullptr;
  EXPECT_EQ(encoded(kString, &object), "00000000");
  for (auto [text, hex] : kCases) {
    object = const_cast<char*>(text);
    const size_t length = strlen(text);
    EXPECT_EQ(encoded(kString, &object), hex);
    std::string wire = from_hex(hex);
    // Padding that is not zero ends no string.
    for (size_t i = 4 + length; i < wire.size(); ++i) wire[i] = '!';
    for (bool supplied : {false, true}) {
      std::vector<char> own(length + 1, '?');
      object = supplied ? own.data() : nullptr;
      TestStream in(wire, xdr_op::kDecode);
      EXPECT_TRUE(__brix_xdr_string(in.get(), &object, 4));
      EXPECT_STREQ(object, text);
      EXPECT_EQ(in.used(), wire.size());
      if (!supplied) __brix_xdr_free(kString, &object);
    }
    expect_failures_release<char*>(kString, wire);
  }
  TestStream out(std::string(12, 'x'), xdr_op::kEncode);
  object = const_cast<char*>("abc");
  EXPECT_FALSE(__brix_xdr_string(out.get(), &object, 2));
  TestStream in(from_hex(kCases[3].second), xdr_op::kDecode);
  object = nullptr;
  EXPECT_FALSE(__brix_xdr_string(in.get(), &object, 2));
}

// No length makes decoding allocate more than a stream holds.
TEST(Xdr, BelievesNoDeclaredLength) {
  for (Hex length : {"0000000D", "7FFFFFFF", "80000000", "FFFFFFFB", "FFFFFFFC", "FFFFFFFF"}) {
    const std::string wire = from_hex(length) + "twelve bytes";
    Counted counted = {nullptr, 0, UINT32_MAX};
    char* text = nullptr;
    FailingMalloc nothing(0);
    EXPECT_FALSE(counted_filter(TestStream(wire, xdr_op::kDecode).get(), &counted));
    EXPECT_FALSE(__brix_xdr_wrapstring(TestStream(wire, xdr_op::kDecode).get(), &text));
    EXPECT_FALSE(nothing.failed());
  }
}

TEST(XdrMemory, LeavesTheStreamAloneWhenItFails) {
  TestStream stream("123", xdr_op::kEncode);
  XDR* xdrs = stream.get();
  const xdr_ops& ops = *xdrs->ops;
  int32_t unit = 0;
  int64_t wide = 0;
  long number = 0;
  char bytes[4] = {};
  EXPECT_FALSE(ops.put_int32(xdrs, &unit) || ops.get_int32(xdrs, &unit) ||
               ops.put_long(xdrs, &number) || ops.get_long(xdrs, &number) ||
               ops.put_int64(xdrs, &wide) || ops.get_int64(xdrs, &wide) ||
               ops.put_bytes(xdrs, bytes, UINT32_MAX) || ops.get_bytes(xdrs, bytes, 4) ||
               ops.set_position(xdrs, 4) || ops.set_position(xdrs, UINT32_MAX));
  EXPECT_TRUE(ops.get_inline(xdrs, 4) == nullptr && ops.get_inline(xdrs, -1) == nullptr);
  EXPECT_TRUE(ops.get_bytes(xdrs, bytes, 3) && ops.set_position(xdrs, 1));
  EXPECT_STREQ(bytes, "123");
  EXPECT_EQ(ops.get_remaining(xdrs), 2);
  EXPECT_EQ(memcmp(ops.get_inline(xdrs, 2), "23", 2), 0);
  XDR nowhere;
  __brix_xdrmem_create(&nowhere, nullptr, 0, xdr_op::kDecode);
  EXPECT_TRUE(ops.get_bytes(&nowhere, nullptr, 0) && ops.put_bytes(&nowhere, nullptr, 0));
}

}  // namespace

// The filters of the basic types and of those made of them, and the streams that they work on.
#include "rpc/xdr/xdr.h"

#include <array>
#include <cstring>
#include <limits>
#include <optional>

#include "rpc/xdr/x_count.h"
#include "rpc/xdr/xdr_object.h"
#include "tests/fakes.h"
#include "tests/xdr_item.h"
#include "tests/xdr_streams.h"

namespace {

using Hex = const char*;

// `value` goes out as `hex`, and comes back as it was or as `back`; nothing is written
// before all of it has come, and nothing at all when the operation is free.
template <auto filter, typename T>
void expect_wire(T value, Hex hex, std::optional<T> back = {}) {
  EXPECT_EQ(encoded(xdr_filter<filter>, &value), hex);
  const std::string bytes = from_hex(hex);
  T object = {};
  EXPECT_FALSE(filter(TestStream(bytes.substr(1)).get(), &object)) << hex;
  EXPECT_EQ(object, T{}) << hex;
  EXPECT_TRUE(filter(TestStream(bytes).get(), &object) && filter(&__xdr, &object));
  EXPECT_EQ(object, back.value_or(value)) << hex;
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
  expect_wire<__brix_xdr_bool>(int32_t{-7}, "00000001", {int32_t{1}});
  expect_wire<__brix_xdr_long>(0x7FFFFFFFL, "7FFFFFFF");
  expect_wire<__brix_xdr_long>(-1L, "FFFFFFFF", {4294967295L});
  expect_wire<__brix_xdr_u_long>(0x11223344F5667788UL, "F5667788", {0xF5667788UL});
  expect_wire<xdr_shorten>(0x700000000 - 2, "FFFFFFFE", {-2L});
  expect_wire<xdr_u_shorten>(0x7FFFFFFFEUL, "FFFFFFFE", {0xFFFFFFFEUL});
  expect_wire<__brix_xdr_time_t>(time_t{0x1FFFFFFFE}, "FFFFFFFE", {time_t{-2}});
  expect_wire<xdr_int64_t>(int64_t{-2}, "FFFFFFFFFFFFFFFE");
  expect_wire<xdr_uint64_t>(uint64_t{0x8102030405060708}, "8102030405060708");
  expect_wire<__brix_xdr_float>(std::numeric_limits<float>::denorm_min(), "00000001");
  expect_wire<__brix_xdr_double>(-1.5, "BFF8000000000000");

  EXPECT_TRUE(__xdr.operation == xdr_op::kFree && __xdr.ops == nullptr && __xdr.user == nullptr &&
              __xdr.private_word == nullptr && __xdr.base == nullptr && __xdr.remaining == 0);
  // What comes in is cut to the width of the host's type.
  uint16_t narrow = 0;
  uint8_t bytes[20] = {};
  EXPECT_TRUE(__brix_xdr_u_short(TestStream("ABCD").get(), &narrow) && narrow == 0x4344);
  TestStream padded("ABC!");
  EXPECT_TRUE(__brix_xdr_opaque(padded.get(), bytes, 3) && padded.used() == 4 &&
              __brix_xdr_opaque(padded.get(), bytes, 0));
  for (xdrproc_t filter : {xdr_filter<xdr_sha_digest>, xdr_filter<xdr_vxui_t>}) {
    EXPECT_EQ(encoded(filter, bytes), "414243" + std::string(34, '0'));
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

constexpr xdrproc_t kCounted = xdr_filter<counted_filter>;
constexpr xdrproc_t kString = xdr_filter<__brix_xdr_wrapstring>;

// The same on the wire, into memory of their own and into the caller's.
TEST(Xdr, CarriesCountedBytesAndStrings) {
  const std::string z1(2001, 'z'), z3(2003, 'z');
  const std::pair<std::string, std::string> cases[] = {{"", "00000000"},
                                                       {"a", "0000000161000000"},
                                                       {"ab", "0000000261620000"},
                                                       {"abc", "0000000361626300"},
                                                       {"abcd", "0000000461626364"},
                                                       {z1, "000007D1" + to_hex(z1) + "000000"},
                                                       {z3, "000007D3" + to_hex(z3) + "00"}};
  for (const auto& [text, hex] : cases) {
    const auto length = static_cast<uint32_t>(text.size());
    char* string = const_cast<char*>(text.c_str());
    Counted counted = {reinterpret_cast<uint8_t*>(string), length, length};
    EXPECT_EQ(encoded(kString, &string), hex);
    EXPECT_EQ(encoded(kCounted, &counted), hex);
    counted.maximum = length - 1;
    EXPECT_EQ(encoded(kCounted, &counted), length > 0 ? "fails" : hex);
    expect_carried<char*>(kString, hex);
    expect_carried<Counted>(kCounted, hex, {nullptr, 0, length});
    std::string wire = from_hex(hex);
    // Padding that is not zero ends no string.
    std::fill(wire.begin() + 4 + length, wire.end(), '!');
    std::vector<char> own(length + 1, '?');
    string = own.data();
    counted = {reinterpret_cast<uint8_t*>(string), 99, length};
    for (size_t sent = 0; sent < wire.size(); ++sent) {
      const std::string cut = wire.substr(0, sent);
      EXPECT_FALSE(__brix_xdr_wrapstring(TestStream(cut).get(), &string));
      EXPECT_FALSE(counted_filter(TestStream(cut).get(), &counted));
    }
    TestStream in(wire + wire);
    EXPECT_TRUE(counted_filter(in.get(), &counted) && in.used() == wire.size());
    EXPECT_TRUE(counted.size == length && std::equal(text.begin(), text.end(), own.begin()));
    EXPECT_TRUE(__brix_xdr_string(in.get(), &string, length) && in.used() == 2 * wire.size());
    EXPECT_EQ(string, text);
  }
  char* text = nullptr;
  EXPECT_EQ(encoded(kString, &text), "00000000");
  Counted nothing = {nullptr, 5, 5};
  EXPECT_FALSE(counted_filter(TestStream(100).get(), &nothing));
  EXPECT_EQ(__brix_xdr_sizeof(kCounted, &nothing), 12U) << "its length counts";
  text = const_cast<char*>("abc");
  EXPECT_FALSE(__brix_xdr_string(TestStream(12).get(), &text, 2));
  TestStream other(99);
  other.get()->operation = xdr_op{3};  // there is none
  EXPECT_FALSE(__brix_xdr_string(other.get(), &text, 9) || counted_filter(other.get(), &nothing) ||
               __brix_xdr_opaque(other.get(), text, 3) ||
               __brix_xdr_pointer(other.get(), as_void(&text), 4, __brix_xdr_void));
}

// No length makes decoding allocate more than a stream holds, or has given and as much again.
TEST(Xdr, BelievesNoDeclaredLength) {
  for (Hex length : {"0000000D", "7FFFFFFF", "80000000", "FFFFFFFB", "FFFFFFFC", "FFFFFFFF"}) {
    for (TestStream::Kind kind : {TestStream::kPlain, TestStream::kBlind}) {
      const std::string wire = from_hex(length) + "twelve bytes";
      Counted counted = {nullptr, 0, UINT32_MAX};
      char* text = nullptr;
      fakes::FailingMalloc few(kind == TestStream::kBlind ? 2 : 0);
      EXPECT_FALSE(counted_filter(TestStream(wire, kind).get(), &counted));
      EXPECT_FALSE(__brix_xdr_wrapstring(TestStream(wire, kind).get(), &text));
      EXPECT_FALSE(few.failed());
    }
  }
  const std::string text(150000, 't');
  const std::string wire = from_hex("000249F0") + text;
  char* back = nullptr;
  for (int granted = 0; granted <= 3; ++granted) {  // 64 KiB, twice as much, all
    fakes::FailingMalloc failing(granted);
    __brix_xdr_wrapstring(TestStream(wire, TestStream::kBlind).get(), &back);
    EXPECT_EQ(back != nullptr, granted == 3);
  }
  EXPECT_EQ(back, text);
  __brix_xdr_free(kString, &back);
}

constexpr xdrproc_t kItem = xdr_filter<item_filter>;

// An item with all that it may have, and one inside it of the other kind.
const std::string kWire =
    "000000046E616D6500000002000000016100000000000000"
    "000000020000000000000007000000010000000801020304050607080000000100000000"
    "000000000000000000000000000000090000000000000002000000026869000000000001"
    "0000FFFF";

TEST(XdrCompound, CarriesAndCopiesWholeObjects) {
  expect_carried<Item>(kItem, kWire);
  Item item = {};
  ASSERT_TRUE(item_filter(TestStream(from_hex(kWire)).get(), &item));
  auto copy_and_release = [&](int granted) {
    fakes::FailingMalloc failing(granted);
    void* copy = __brix_xdr_dup(kItem, &item, sizeof item);
    EXPECT_EQ(copy == nullptr, failing.failed());
    EXPECT_TRUE(copy == nullptr || encoded(kItem, copy) == kWire);
    __brix_xdr_free_pointer(kItem, copy);
    return failing.failed();
  };
  auto copy_all = [&] {
    for (int granted = 0; copy_and_release(granted);) ++granted;
  };
  EXPECT_EQ(fakes::pieces_left_by(copy_all), 0);
  __brix_xdr_free(kItem, &item);
  EXPECT_TRUE(item.name == nullptr && item.always == nullptr && item.optional == nullptr);
  item.kind = 3;  // encodes nowhere
  EXPECT_EQ(__brix_xdr_dup(kItem, &item, sizeof item), nullptr);
  EXPECT_EQ(__brix_xdr_sizeof(kItem, &item), 0U);
  __brix_xdr_free(kItem, nullptr);
}

template <auto filter>
bool three(XDR* xdrs, void* values) {
  using T = typename xdr_detail::ObjectOf<decltype(filter)>::Type;
  return __brix_xdr_vector(xdrs, values, 3, sizeof(T), xdr_filter<filter>);
}

// Integers at once and, by a blind stream, one by one.
TEST(XdrCompound, CarriesVectors) {
  for (xdrproc_t filter : {three<xdr_int32_t>, three<xdr_uint32_t>, three<__brix_xdr_enum>,
                           three<__brix_xdr_int>, three<__brix_xdr_u_int>}) {
    expect_carried<std::array<int32_t, 3>>(filter, "0102030480000000FFFFFFFE");
  }
  for (xdrproc_t filter : {three<xdr_int64_t>, three<xdr_uint64_t>}) {
    expect_carried<std::array<int64_t, 3>>(filter,
                                           "01020304050607088000000000000000FFFFFFFFFFFFFFFE");
  }
  expect_carried<std::array<char, 3>>(three<__brix_xdr_char>, "000000010000007FFFFFFF80");
  // Only where they stand side by side.
  int32_t apart[] = {1, 7, 2, 8};
  TestStream out(16);
  EXPECT_TRUE(__brix_xdr_vector(out.get(), apart, 2, 8, xdr_filter<xdr_int32_t>));
  EXPECT_EQ(out.hex(), "0000000100000002");
}

struct Array {
  void* elements = nullptr;
  uint32_t count = 99;

  bool run(XDR* xdrs, uint32_t maximum = UINT32_MAX, uint32_t element_size = 4,
           xdrproc_t element = xdr_filter<xdr_int32_t>) {
    return __brix_xdr_array(xdrs, &elements, &count, maximum, element_size, element);
  }
  bool release() { return run(&__xdr) && elements == nullptr; }
};

TEST(XdrCompound, BoundsArrays) {
  const std::string wire = from_hex("00000002 00000007 00000009");
  Array array;
  for (auto [maximum, element_size] : {std::pair{1U, 4U}, {2U, 0U}, {2U, 0x80000000U}}) {
    EXPECT_FALSE(array.run(TestStream(wire).get(), maximum, element_size));
    EXPECT_TRUE(array.elements == nullptr && array.count == 0);
  }
  ASSERT_TRUE(array.run(TestStream(wire).get(), 2));
  EXPECT_FALSE(array.run(TestStream(12).get(), 1));
  EXPECT_TRUE(array.release());
  EXPECT_FALSE(array.run(TestStream(12).get(), 2) || array.run(TestStream("123").get(), 2));
}

// A peer that declares many elements and sends few gets memory for few; what is there
// gets it at once.
TEST(XdrCompound, BelievesNoDeclaredCount) {
  for (const char* declared : {"00000004", "10000000", "3FFFFFFF"}) {
    Array array;
    EXPECT_FALSE(array.run(TestStream(from_hex(declared) + "twelve bytes").get()));
    EXPECT_TRUE(array.count <= 16384 && array.release());
  }
  for (uint32_t sent : {0U, 16384U, 16385U, 50000U}) {
    Array array;
    const std::string wire = from_hex("3FFFFFFF") + std::string(sent * 4, '\x01');
    EXPECT_FALSE(array.run(TestStream(wire, TestStream::kBlind).get()));
    EXPECT_LE(array.count, std::max(16384U, 2 * sent));
    for (uint32_t i = sent; i < array.count; ++i) {
      ASSERT_EQ(static_cast<int32_t*>(array.elements)[i], 0);
    }
    EXPECT_TRUE(array.release());
  }
  Array array;
  TestStream exactly(from_hex("00004E20") + std::string(80000, 'x'));
  fakes::FailingMalloc once(1);
  EXPECT_TRUE(array.run(exactly.get()) && array.count == 20000 && array.release());
}

TEST(XdrStreams, StayAsTheyAreWhenTheyFail) {
  TestStream stream("123");
  uint64_t counter = 0;
  XDR counting;
  xdrcount_create(&counting, &counter);
  for (XDR* xdrs : {stream.get(), &counting}) {
    const xdr_ops& ops = *xdrs->ops;
    int32_t unit = 0;
    int64_t wide = 0;
    long number = 0;
    char bytes[4] = {};
    EXPECT_FALSE(ops.get_int32(xdrs, &unit) || ops.get_long(xdrs, &number) ||
                 ops.get_int64(xdrs, &wide) || ops.get_bytes(xdrs, bytes, 4) ||
                 ops.set_position(xdrs, 4) || ops.set_position(xdrs, UINT32_MAX));
    EXPECT_TRUE(ops.get_inline(xdrs, 4) == nullptr && ops.get_inline(xdrs, -1) == nullptr);
    EXPECT_TRUE(ops.control(xdrs, 6, nullptr) && !ops.control(xdrs, 5, nullptr));
    // Only the counting one has room.
    for (bool put : {ops.put_int32(xdrs, &unit), ops.put_long(xdrs, &number),
                     ops.put_int64(xdrs, &wide), ops.put_bytes(xdrs, bytes, UINT32_MAX)}) {
      EXPECT_EQ(put, xdrs == &counting);
    }
  }
  EXPECT_TRUE(counter == 0x10000000F && counting.ops->get_position(&counting) == 15 &&
              counting.ops->get_remaining(&counting) == 0);
  XDR* xdrs = stream.get();
  const xdr_ops& ops = *xdrs->ops;
  char bytes[4] = {};
  EXPECT_TRUE(ops.get_bytes(xdrs, bytes, 3) && ops.set_position(xdrs, 1));
  EXPECT_STREQ(bytes, "123");
  EXPECT_EQ(ops.get_remaining(xdrs), 2);
  EXPECT_EQ(memcmp(ops.get_inline(xdrs, 2), "23", 2), 0);
  EXPECT_TRUE(ops.set_position(xdrs, 3));
  __brix_xdrmem_create(xdrs, nullptr, 0, xdr_op::kDecode);
  EXPECT_TRUE(ops.get_bytes(xdrs, nullptr, 0) && ops.put_bytes(xdrs, nullptr, 0));
}

}  // namespace

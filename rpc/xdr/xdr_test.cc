// The filters of the basic types and of those made of them, and the streams that they work on.
#include "rpc/xdr/xdr.h"

#include <limits>
#include <optional>

#include "rpc/messages/rpc_cmsg.h"
#include "rpc/messages/rpc_prot.h"
#include "rpc/xdr/x_count.h"
#include "tests/xdr_item.h"
#include "tests/xdr_streams.h"

namespace {

// `value` goes out as `hex`, and comes back as it was or as `back`; nothing is stored before
// all of it has come, and nothing when the operation is free.
template <auto filter, typename T>
void expect_wire(T value, const std::string& hex, std::optional<T> back = {}) {
  SCOPED_TRACE(hex);
  T sent = value;
  EXPECT_EQ(encoded(xdr_filter<filter>, &sent), hex);
  EXPECT_EQ(sent, value);
  const std::string bytes = from_hex(hex);
  T object = {};
  EXPECT_FALSE(filter(TestStream(bytes.substr(1)).get(), &object));
  EXPECT_EQ(object, T{});
  EXPECT_TRUE(filter(TestStream(bytes).get(), &object));
  EXPECT_TRUE(filter(&__xdr, &object));
  EXPECT_EQ(object, back.value_or(value));
}

TEST(Xdr, CarriesNumbers) {
  expect_wire<xdr_uint32_t>(uint32_t{0x80000001}, "80000001");
  expect_wire<__brix_xdr_short>(int16_t{-2}, "FFFFFFFE");
  expect_wire<__brix_xdr_bool>(int32_t{0}, "00000000");
  expect_wire<__brix_xdr_char>('\x7E', "0000007E");
  expect_wire<__brix_xdr_bool>(int32_t{-7}, "00000001", {int32_t{1}});
  expect_wire<xdr_uint64_t>(uint64_t{0x8102030405060708}, "8102030405060708");
  expect_wire<__brix_xdr_float>(std::numeric_limits<float>::denorm_min(), "00000001");
  expect_wire<__brix_xdr_double>(-1.5, "BFF8000000000000");
}

TEST(Xdr, CarriesTheLowHalfOfLongs) {
  expect_wire<__brix_xdr_long>(-1L, "FFFFFFFF", {4294967295L});
  expect_wire<__brix_xdr_u_long>(0x11223344F5667788UL, "F5667788", {0xF5667788UL});
  expect_wire<xdr_shorten>(0x700000000 - 2, "FFFFFFFE", {-2L});
  expect_wire<xdr_u_shorten>(0x7FFFFFFFEUL, "FFFFFFFE", {0xFFFFFFFEUL});
}

TEST(Xdr, PadsOpaqueBytes) {
  uint8_t bytes[20] = {};
  TestStream in("ABC!");
  EXPECT_TRUE(__brix_xdr_opaque(in.get(), bytes, 3));
  EXPECT_EQ(in.used(), 4U);
  for (uint32_t to : {4U, 5U}) EXPECT_EQ(in.get()->ops->set_position(in.get(), to), to < 5);
  EXPECT_EQ(encoded(xdr_filter<xdr_sha_digest>, bytes), "414243" + std::string(34, '0'));
  EXPECT_EQ(encoded(xdr_filter<__brix_xdr_des_block>, bytes), "4142430000000000");
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

TEST(Xdr, CarriesBytesAndStrings) {
  for (const char* hex : {"00000000", "0000000161000000", "0000000261620000", "0000000361626300",
                          "0000000461626364"}) {
    expect_carried<char*>(kString, hex);
    expect_carried<Counted>(kCounted, hex, {nullptr, 0, 4});
  }
  char* none = nullptr;
  EXPECT_EQ(encoded(kString, &none), "00000000");
}

TEST(Xdr, DecodesIntoMemoryOfTheCaller) {
  const std::string wire = from_hex("00000002") + "ab!!";  // such padding ends no string
  char own[] = "?????";
  char* text = own;
  Counted counted = {reinterpret_cast<uint8_t*>(own), 99, 2};
  TestStream in(wire + wire);
  EXPECT_TRUE(counted_filter(in.get(), &counted));
  EXPECT_EQ(counted.size, 2U);
  EXPECT_STREQ(own, "ab???");
  EXPECT_TRUE(__brix_xdr_string(in.get(), &text, 2));
  EXPECT_STREQ(own, "ab");
  EXPECT_EQ(in.used(), 2 * wire.size());
  const std::string three = from_hex("00000003") + "abc!";
  EXPECT_FALSE(__brix_xdr_string(TestStream(three.substr(0, 6)).get(), &text, 3));
  EXPECT_FALSE(__brix_xdr_string(TestStream(three).get(), &text, 2));
  EXPECT_FALSE(counted_filter(TestStream(three).get(), &counted));
  EXPECT_FALSE(__brix_xdr_string(TestStream(from_hex("00000002") + "ab").get(), &text, 3));
}

TEST(Xdr, AllocatesNothingForWhatIsNotThere) {
  for (const char* length : {"0000000D", "80000000", "FFFFFFFD"}) {
    char* text = nullptr;
    const fakes::FailingMalloc none(0);
    EXPECT_FALSE(__brix_xdr_wrapstring(TestStream(from_hex(length) + "twelve bytes").get(), &text));
    EXPECT_FALSE(none.failed()) << length;
  }
}

// An item with all that it may have, and a nearly empty one inside it.
const char kItemHex[] =
    "000000046E616D65000000010000000161000000010203040506070800000001"
    "0000000000000000000000000000000900000000";

constexpr xdrproc_t kItem = xdr_filter<item_filter>;

TEST(XdrCompound, CarriesAndCopiesWholeObjects) {
  expect_carried<Item>(kItem, kItemHex);
  Item item = {};
  ASSERT_TRUE(item_filter(TestStream(from_hex(kItemHex)).get(), &item));
  auto copy_item = [&](const fakes::FailingMalloc& failing) {
    void* copy = __brix_xdr_dup(kItem, &item, sizeof item);
    EXPECT_EQ(copy == nullptr, failing.failed());
    EXPECT_TRUE(copy == nullptr || encoded(kItem, copy) == kItemHex);
    __brix_xdr_free_pointer(kItem, copy);
  };
  EXPECT_EQ(fakes::pieces_left_by([&] { fakes::refuse_each_allocation(copy_item); }), 0);
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(kItem(&__xdr, &item));  // freed before
}

class ArrayTest : public testing::Test {
 protected:
  void TearDown() override {
    EXPECT_TRUE(run(&__xdr));
    EXPECT_EQ(elements_, nullptr);
  }

  bool run(XDR* xdrs, uint32_t maximum = UINT32_MAX, uint32_t element_size = 4) {
    return __brix_xdr_array(xdrs, &elements_, &count_, maximum, element_size,
                            xdr_filter<xdr_int32_t>);
  }

  void* elements_ = nullptr;
  uint32_t count_ = 99;
};

TEST_F(ArrayTest, IsBoundedByItsMaximumAndItsSize) {
  const std::string wire = from_hex("00000002 00000007 00000009");
  for (auto [maximum, element_size] : {std::pair{1U, 4U}, {2U, 0U}, {2U, 0x80000000U}}) {
    EXPECT_FALSE(run(TestStream(wire).get(), maximum, element_size));
    EXPECT_EQ(count_, 0U);
  }
  EXPECT_TRUE(run(TestStream(wire).get(), 2, 8));
  EXPECT_EQ(static_cast<int32_t*>(elements_)[2], 9);  // 8 bytes apart
}

TEST_F(ArrayTest, GetsMemoryForWhatHasCome) {
  for (TestStream::Kind kind : {TestStream::kPlain, TestStream::kBlind}) {
    for (uint32_t sent : {3U, 32769U}) {
      const std::string wire = from_hex("3FFFFFFF") + std::string(sent * 4, '\x01');
      EXPECT_FALSE(run(TestStream(wire, kind).get()));
      EXPECT_LE(count_, std::max(16384U, 2 * sent));
      EXPECT_EQ(static_cast<int32_t*>(elements_)[count_ - 1], 0);  // the rest is cleared
      EXPECT_TRUE(run(&__xdr));
    }
  }
}

TEST(XdrStreams, ThatCountGiveNothing) {
  uint64_t bytes = 0;
  XDR counting;
  xdrcount_create(&counting, &bytes);
  const xdr_ops& ops = *counting.ops;
  int32_t unit = 0;
  EXPECT_FALSE(ops.get_int32(&counting, &unit));
  EXPECT_FALSE(ops.get_bytes(&counting, &unit, 0));
  EXPECT_FALSE(ops.set_position(&counting, 0));
  EXPECT_EQ(ops.get_remaining(&counting), 0);
  EXPECT_TRUE(ops.control(&counting, 6, nullptr));
  EXPECT_FALSE(ops.control(&counting, 5, nullptr));
  auto refuses = [](XDR*, void*) { return false; };
  EXPECT_EQ(__brix_xdr_sizeof(refuses, nullptr), 0U);
  EXPECT_EQ(__brix_xdr_dup(refuses, nullptr, 4), nullptr);
}

TEST(XdrStreams, HaveThreeOperations) {
  XDR fourth = {};
  fourth.operation = static_cast<xdr_op>(3);
  rpc_call_message object = {};
  EXPECT_TRUE(__brix_xdr_enum(&fourth, nullptr));
  EXPECT_FALSE(__brix_xdr_opaque(&fourth, &object, 1));
  EXPECT_FALSE(__brix_xdr_pointer(&fourth, as_void(&fourth.base), 1, kString));
  EXPECT_FALSE(__brix_xdr_callmsg(&fourth, &object));
  for (xdrproc_t filter : {kString, kCounted}) EXPECT_FALSE(filter(&fourth, &object));
}

}  // namespace

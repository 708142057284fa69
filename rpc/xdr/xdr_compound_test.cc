#include "rpc/xdr/xdr_compound.h"

#include "rpc/xdr/xdr_object.h"
#include "tests/xdr_item.h"
#include "tests/xdr_streams.h"

namespace {

constexpr xdrproc_t kItem = xdr_filter<item_filter>;

// An item with all that it may have, and one inside it of the other kind.
const std::string kInner =
    "00000000 00000000 00000000 0000000000000009 00000000 00000002 00000002 68690000";
const std::string kWire = from_hex(
    "00000004 6E616D65 00000002 00000001 61000000 00000000"
    "00000002 0000000000000007 0000000100000008 0102030405060708 00000001" +
    kInner + "00000001 0000FFFF");

TEST(XdrCompound, CarriesAndCopiesWholeObjects) {
  for (TestStream::Kind kind : {TestStream::kPlain, TestStream::kBlind}) {
    Item item = {};
    ASSERT_TRUE(item_filter(TestStream(kWire, xdr_op::kDecode, kind).get(), &item));
    EXPECT_EQ(encoded(kItem, &item), to_hex(kWire));
    void* copy = nullptr;
    for (int granted = 0; copy == nullptr; ++granted) {
      FailingMalloc failing(granted);
      copy = __brix_xdr_dup(kItem, &item, sizeof item);
      ASSERT_EQ(copy == nullptr, failing.failed());
    }
    __brix_xdr_free(kItem, &item);
    EXPECT_TRUE(item.name == nullptr && item.always == nullptr && item.optional == nullptr);
    EXPECT_EQ(encoded(kItem, copy), to_hex(kWire));
    __brix_xdr_free_pointer(kItem, copy);
  }
  expect_failures_release<Item>(kItem, kWire);
  Item unknown = {};
  unknown.kind = 3;  // encodes nowhere
  EXPECT_EQ(__brix_xdr_dup(kItem, &unknown, sizeof unknown), nullptr);
  EXPECT_EQ(__brix_xdr_sizeof(kItem, &unknown), 0U);
  __brix_xdr_free(kItem, nullptr);
}

// Carries `count` integers of `size` bytes through a stream with `room`; tells what is
// there then. A blind stream takes them one by one.
std::string carry(xdrproc_t filter, uint32_t size, xdr_op operation, size_t room, uint32_t count,
                  TestStream::Kind kind) {
  std::string values = "abcdefghijklmnopqrstuvwx";
  const std::string bytes = "123456789\xF0\xF1\xF2MNOPQRSTUVWX";
  TestStream stream(bytes.substr(0, room), operation, kind);
  const bool done = __brix_xdr_vector(stream.get(), values.data(), count, size, filter);
  return std::to_string(done) + values + stream.hex();
}

TEST(XdrCompound, CarriesIntegersAtOnceAsOneByOne) {
  const std::pair<xdrproc_t, uint32_t> filters[] = {
      {xdr_filter<xdr_int32_t>, 4},      {xdr_filter<xdr_uint32_t>, 4},
      {xdr_filter<__brix_xdr_enum>, 4},  {xdr_filter<__brix_xdr_int>, 4},
      {xdr_filter<__brix_xdr_u_int>, 4}, {xdr_filter<xdr_int64_t>, 8},
      {xdr_filter<xdr_uint64_t>, 8},     {xdr_filter<__brix_xdr_char>, 1}};
  for (const auto& [filter, size] : filters) {
    for (xdr_op operation : {xdr_op::kEncode, xdr_op::kDecode, xdr_op::kFree}) {
      for (size_t room = 0; room <= 24; ++room) {
        for (uint32_t count = 0; count <= 24 / size; ++count) {
          EXPECT_EQ(carry(filter, size, operation, room, count, TestStream::kPlain),
                    carry(filter, size, operation, room, count, TestStream::kBlind))
              << room << " " << count;
        }
      }
    }
  }
  // Only where they stand side by side.
  int32_t apart[] = {1, 7, 2, 8};
  TestStream out(std::string(16, 'x'), xdr_op::kEncode);
  EXPECT_TRUE(__brix_xdr_vector(out.get(), apart, 2, 8, xdr_filter<xdr_int32_t>));
  EXPECT_EQ(out.hex(), "0000000100000002");
}

struct Array {
  void* elements = nullptr;
  uint32_t count = 99;

  bool run(TestStream&& stream, uint32_t maximum = UINT32_MAX, uint32_t element_size = 4,
           xdrproc_t element = xdr_filter<xdr_int32_t>) {
    return __brix_xdr_array(stream.get(), &elements, &count, maximum, element_size, element);
  }
  bool release() { return run({"", xdr_op::kFree}) && elements == nullptr; }
};

TEST(XdrCompound, BoundsArrays) {
  const std::string wire = from_hex("00000002 00000007 00000009");
  Array array;
  for (auto [maximum, element_size] : {std::pair{1U, 4U}, {2U, 0U}, {2U, 0x80000000U}}) {
    EXPECT_FALSE(array.run({wire, xdr_op::kDecode}, maximum, element_size));
    EXPECT_TRUE(array.elements == nullptr && array.count == 0);
  }
  ASSERT_TRUE(array.run({wire, xdr_op::kDecode}, 2));
  EXPECT_FALSE(array.run({wire, xdr_op::kEncode}, 1));
  EXPECT_TRUE(array.release());
  EXPECT_FALSE(array.run({wire, xdr_op::kEncode}, 2)) << "counted, not there";
}

// A peer that declares many elements and sends few gets memory for few; what is there
// gets it at once.
TEST(XdrCompound, BelievesNoDeclaredCount) {
  for (const char* declared : {"00000004", "10000000", "3FFFFFFF"}) {
    Array array;
    EXPECT_FALSE(array.run({from_hex(declared) + "twelve bytes", xdr_op::kDecode}));
    EXPECT_TRUE(array.count <= 16384 && array.release());
  }
  for (uint32_t sent : {0U, 16384U, 16385U, 50000U}) {
    Array array;
    EXPECT_FALSE(array.run({from_hex("3FFFFFFF") + std::string(sent * 4, '\x01'), xdr_op::kDecode,
                            TestStream::kBlind}));
    EXPECT_LE(array.count, std::max(16384U, 2 * sent));
    for (uint32_t i = sent; i < array.count; ++i) {
      ASSERT_EQ(static_cast<int32_t*>(array.elements)[i], 0);
    }
    EXPECT_TRUE(array.release());
  }
  Array array;
  TestStream exactly(from_hex("00004E20") + std::string(80000, 'x'), xdr_op::kDecode);
  FailingMalloc once(1);
  EXPECT_TRUE(array.run(std::move(exactly)) && array.count == 20000 && array.release());
}

TEST(XdrCompound, ElementsOfNothingAreMadeUpToALimit) {
  for (TestStream::Kind kind : {TestStream::kPlain, TestStream::kBlind}) {
    for (auto [declared, made] :
         {std::pair{"00000005", 5U}, {"00040000", 0x40000U}, {"00040001", 0U}}) {
      Array array;
      const bool done =
          array.run({from_hex(declared), xdr_op::kDecode, kind}, UINT32_MAX, 4, __brix_xdr_void);
      EXPECT_TRUE((done ? array.count : 0) == made && array.count <= 0x40000) << declared;
      free(array.elements);
    }
  }
}

}  // namespace

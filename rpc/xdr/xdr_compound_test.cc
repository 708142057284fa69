#include "rpc/xdr/xdr_compound.h"

#include <array>

#include "rpc/xdr/xdr_object.h"
#include "tests/xdr_item.h"
#include "tests/xdr_streams.h"

namespace {

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
    FailingMalloc failing(granted);
    void* copy = __brix_xdr_dup(kItem, &item, sizeof item);
    EXPECT_EQ(copy == nullptr, failing.failed());
    EXPECT_TRUE(copy == nullptr || encoded(kItem, copy) == kWire);
    __brix_xdr_free_pointer(kItem, copy);
    return failing.failed();
  };
  auto copy_all = [&] {
    for (int granted = 0; copy_and_release(granted);) ++granted;
  };
  EXPECT_EQ(pieces_left_by(copy_all), 0);
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
  EXPECT_FALSE(array.run(TestStream(12).get(), 2)) << "counted, not there";
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
  FailingMalloc once(1);
  EXPECT_TRUE(array.run(exactly.get()) && array.count == 20000 && array.release());
}

TEST(XdrCompound, ElementsOfNothingAreMadeUpToALimit) {
  for (TestStream::Kind kind : {TestStream::kPlain, TestStream::kBlind}) {
    for (auto [declared, made] :
         {std::pair{"00000005", 5U}, {"00040000", 0x40000U}, {"00040001", 0U}}) {
      Array array;
      TestStream in(from_hex(declared), kind);
      const bool done = array.run(in.get(), UINT32_MAX, 4, __brix_xdr_void);
      EXPECT_TRUE((done ? array.count : 0) == made && array.count <= 0x40000) << declared;
      free(array.elements);
    }
  }
}

}  // namespace

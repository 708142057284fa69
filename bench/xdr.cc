// XDR beside straight copies.
#include "rpc/xdr/xdr.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <vector>

#include "bench/compare.h"
#include "rpc/xdr/x_mem.h"
#include "rpc/xdr/xdr_compound.h"
#include "rpc/xdr/xdr_object.h"

namespace {

constexpr uint32_t kCount = 1000000;

void measure_integers() {
  std::vector<uint32_t> numbers(kCount);
  std::vector<uint32_t> wire(1 + kCount);
  std::iota(numbers.begin(), numbers.end(), 0U);
  auto filter = [&](xdr_op operation) {
    XDR xdrs = {};
    void* array = numbers.data();
    uint32_t count = kCount;
    __brix_xdrmem_create(&xdrs, wire.data(), 4 * (1 + kCount), operation);
    require(__brix_xdr_array(&xdrs, &array, &count, kCount, 4, xdr_filter<__brix_xdr_u_int>));
    touch(wire);
  };
  auto copy = [&](uint32_t* to, const uint32_t* from) {
    for (size_t i = 0; i < kCount; ++i) to[i] = htonl(from[i]);
    touch(wire);
  };
  compare(
      "encode 1,000,000 integers", 1.2, [&] { filter(xdr_op::kEncode); },
      [&] { copy(wire.data() + 1, numbers.data()); });
  compare(
      "decode 1,000,000 integers", 1.2, [&] { filter(xdr_op::kDecode); },
      [&] { copy(numbers.data(), wire.data() + 1); });
  require(numbers[kCount - 1] == kCount - 1);
}

constexpr char kText[] = "a name of twenty-eight bytes";

struct Strings {
  char* texts[16];
};

bool strings_filter(XDR* xdrs, Strings* strings) {
  return std::ranges::all_of(strings->texts,
                             [=](char*& text) { return __brix_xdr_string(xdrs, &text, 255); });
}

void put_strings(uint8_t* at, const Strings& strings) {
  for (const char* text : strings.texts) {
    const auto size = static_cast<uint32_t>(strlen(text));
    const uint32_t swapped = htonl(size);
    memcpy(at, &swapped, sizeof swapped);
    memcpy(at + 4, text, size);
    at += 4 + size;
  }
}

// The same allocations as the filter makes, and a straight copy into them.
void take_strings(const uint8_t* at, Strings* strings) {
  for (char*& text : strings->texts) {
    uint32_t size;
    memcpy(&size, at, sizeof size);
    size = ntohl(size);
    text = static_cast<char*>(malloc(size + 3));
    memcpy(text, at + 4, size);
    text[size] = '\0';
    at += 4 + size;
  }
}

void measure_strings() {
  Strings strings;
  std::ranges::fill(strings.texts, const_cast<char*>(kText));
  uint8_t buffer[std::size(strings.texts) * (4 + sizeof kText - 1)];
  XDR xdrs = {};
  compare(
      "encode a structure of strings", 2.2,
      [&] {
        __brix_xdrmem_create(&xdrs, buffer, sizeof buffer, xdr_op::kEncode);
        require(strings_filter(&xdrs, &strings));
        touch(buffer);
      },
      [&] {
        touch(strings);
        put_strings(buffer, strings);
        touch(buffer);
      });
  compare(
      "decode a structure of strings", 2.2,
      [&] {
        Strings decoded = {};
        __brix_xdrmem_create(&xdrs, buffer, sizeof buffer, xdr_op::kDecode);
        require(strings_filter(&xdrs, &decoded));
        touch(decoded);
        __brix_xdr_free(xdr_filter<strings_filter>, &decoded);
      },
      [&] {
        Strings decoded = {};
        take_strings(buffer, &decoded);
        touch(decoded);
        std::ranges::for_each(decoded.texts, free);
      });
}

}  // namespace

void measure_xdr() {
  measure_integers();
  measure_strings();
}

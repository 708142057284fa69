// XDR's hot paths, each beside its floor.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <numeric>

#include "bench/paths.h"
#include "rpc/xdr/x_mem.h"
#include "rpc/xdr/xdr.h"
#include "rpc/xdr/xdr_compound.h"
#include "rpc/xdr/xdr_object.h"

namespace {

void require(bool held) {
  if (held) return;
  fprintf(stderr, "xdr_bench: a path came out wrong\n");
  exit(1);
}

// --- An array of integers ------------------------------------------------------

constexpr uint32_t kCount = 1000000;

// Both sides work on the same buffers, whose pages are all in use.
std::vector<uint32_t> numbers(kCount);
std::vector<uint8_t> wire(4 + kCount * 4);

bool numbers_filter(XDR* xdrs, xdr_op operation) {
  void* array = numbers.data();
  uint32_t count = kCount;
  __brix_xdrmem_create(xdrs, wire.data(), static_cast<int32_t>(wire.size()), operation);
  return __brix_xdr_array(xdrs, &array, &count, kCount, sizeof(uint32_t),
                          xdr_filter<__brix_xdr_u_int>);
}

void encode_numbers(benchmark::State& state) {
  XDR xdrs = {};
  for (auto _ : state) require(numbers_filter(&xdrs, xdr_op::kEncode));
}

void decode_numbers(benchmark::State& state) {
  XDR xdrs = {};
  for (auto _ : state) {
    require(numbers_filter(&xdrs, xdr_op::kDecode));
    benchmark::DoNotOptimize(numbers.data());
  }
  for (uint32_t i = 0; i < kCount; i += 9973) require(numbers[i] == i);
}

void swapping_copy(uint8_t* to, const uint8_t* from) {
  for (size_t i = 0; i < kCount; ++i) {
    uint32_t number;
    memcpy(&number, from + 4 * i, sizeof number);
    number = __builtin_bswap32(number);
    memcpy(to + 4 * i, &number, sizeof number);
  }
}

void encode_numbers_floor(benchmark::State& state) {
  for (auto _ : state) {
    swapping_copy(wire.data() + 4, reinterpret_cast<uint8_t*>(numbers.data()));
    benchmark::ClobberMemory();
  }
}

void decode_numbers_floor(benchmark::State& state) {
  for (auto _ : state) {
    swapping_copy(reinterpret_cast<uint8_t*>(numbers.data()), wire.data() + 4);
    benchmark::ClobberMemory();
  }
}

// --- A structure of strings ----------------------------------------------------

constexpr int kStrings = 16;
constexpr char kText[] = "a name of twenty-eight bytes";
constexpr uint32_t kTextSize = sizeof kText - 1;

struct Strings {
  char* texts[kStrings];
};

bool strings_filter(XDR* xdrs, Strings* strings) {
  for (char*& text : strings->texts) {
    if (!__brix_xdr_string(xdrs, &text, 255)) return false;
  }
  return true;
}

Strings sample() {
  Strings strings;
  for (char*& text : strings.texts) text = const_cast<char*>(kText);
  return strings;
}

using Buffer = uint8_t[kStrings * (4 + kTextSize)];

void encode_strings(benchmark::State& state) {
  Strings strings = sample();
  Buffer buffer;
  XDR xdrs = {};
  for (auto _ : state) {
    __brix_xdrmem_create(&xdrs, buffer, sizeof buffer, xdr_op::kEncode);
    require(strings_filter(&xdrs, &strings));
    benchmark::DoNotOptimize(buffer);
  }
}

void put_strings(uint8_t* at, const Strings& strings) {
  for (const char* text : strings.texts) {
    auto size = static_cast<uint32_t>(strlen(text));
    uint32_t swapped = __builtin_bswap32(size);
    memcpy(at, &swapped, sizeof swapped);
    memcpy(at + 4, text, size);
    at += 4 + size;
  }
}

void encode_strings_floor(benchmark::State& state) {
  Strings strings = sample();
  Buffer buffer;
  for (auto _ : state) {
    benchmark::DoNotOptimize(strings);
    put_strings(buffer, strings);
    benchmark::DoNotOptimize(buffer);
  }
}

void decode_strings(benchmark::State& state) {
  Buffer buffer;
  put_strings(buffer, sample());
  XDR xdrs = {};
  for (auto _ : state) {
    Strings strings = {};
    __brix_xdrmem_create(&xdrs, buffer, sizeof buffer, xdr_op::kDecode);
    require(strings_filter(&xdrs, &strings));
    benchmark::DoNotOptimize(strings);
    __brix_xdr_free(xdr_filter<strings_filter>, &strings);
  }
}

// The same allocations, and a straight copy into them.
void decode_strings_floor(benchmark::State& state) {
  Buffer buffer;
  put_strings(buffer, sample());
  for (auto _ : state) {
    Strings strings = {};
    const uint8_t* at = buffer;
    for (char*& text : strings.texts) {
      uint32_t size;
      memcpy(&size, at, sizeof size);
      size = __builtin_bswap32(size);
      text = static_cast<char*>(malloc(size + 3));
      memcpy(text, at + 4, size);
      text[size] = '\0';
      at += 4 + size;
    }
    benchmark::DoNotOptimize(strings);
    for (char* text : strings.texts) free(text);
  }
}

constexpr Path kPaths[] = {
    {"encode 1,000,000 integers", "encode_numbers", encode_numbers, encode_numbers_floor, 2.0},
    {"decode 1,000,000 integers", "decode_numbers", decode_numbers, decode_numbers_floor, 2.0},
    {"encode a structure of strings", "encode_strings", encode_strings, encode_strings_floor, 1.6},
    {"decode a structure of strings", "decode_strings", decode_strings, decode_strings_floor, 2.0},
};

}  // namespace

int main(int argc, char** argv) {
  std::iota(numbers.begin(), numbers.end(), 0U);
  XDR xdrs = {};
  require(numbers_filter(&xdrs, xdr_op::kEncode));
  return measure(argc, argv, kPaths);
}

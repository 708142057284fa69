// The frame of every harness, which includes it once: assertions in every build, the input as
// text, and what the parsers report sent to nowhere.
#pragma once

#undef NDEBUG
#include <cassert>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

/// The harness's check of one input. The address sanitizer sees reads past it.
static void check_input(std::string_view input);

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  stderr = fopen("/dev/null", "w");  // the fuzzer has its own stream
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  check_input({reinterpret_cast<const char*>(data), size});
  return 0;
}

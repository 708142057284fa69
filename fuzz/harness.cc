#include "fuzz/harness.h"

#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  stderr = fopen("/dev/null", "w");  // for what the parsers report; the fuzzer has its own stream
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  check_input({reinterpret_cast<const char*>(data), size});
  return 0;
}

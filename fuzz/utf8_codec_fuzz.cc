// The UTF-8 decoder on arbitrary bytes: it stays within them, and what it accepts is
// encoded again to the same bytes.
#undef NDEBUG
#include <cassert>
#include <cstdint>
#include <cstring>
#include <vector>

#include "liblocal/text/utf8_codec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<char> bytes(data, data + size);  // of its exact size, so over-reads are seen
  for (size_t at = 0; at < size; ++at) {
    wchar_t value = 0;
    int length = utf8_mbtowc(&value, bytes.data() + at, size - at);
    if (length <= 0) continue;
    char again[kUtf8MaxLength];
    assert(utf8_wctomb(again, value) == length);
    assert(memcmp(again, bytes.data() + at, static_cast<size_t>(length)) == 0);
  }
  assert(utf8_whole_length(bytes.data(), size) <= size);
  return 0;
}

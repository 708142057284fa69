// Both converters in the plain locale, where every byte is a character, on arbitrary
// text in areas of every size: terminated, never beyond the area, and there and back the
// same.
#undef NDEBUG
#include <cassert>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "liblocal/utf8_convert.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  std::vector<char> small(data[0]);
  for (auto* convert : {utf8_mbs, ansi_mbs}) {
    assert(convert(small.data(), text.c_str(), small.size()) <= small.size());
    assert(small.empty() || strlen(small.data()) < small.size());
  }
  std::vector<char> utf8(2 * text.size() + 1);
  std::vector<char> back(text.size() + 1);
  utf8_mbs(utf8.data(), text.c_str(), utf8.size());
  ansi_mbs(back.data(), utf8.data(), back.size());
  assert(strcmp(back.data(), text.c_str()) == 0);
  return 0;
}

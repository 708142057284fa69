// Wrapping of arbitrary lines: every byte stays, but for blanks that became line breaks.
#undef NDEBUG
#include <cassert>
#include <cctype>
#include <cstring>

#include "trap/message.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  char line[kLineSize] = {}, wrapped[kLineSize];
  if (size >= sizeof line) return 0;
  memcpy(line, data, size);
  wrap_line(line, wrapped);
  assert(strlen(wrapped) == strlen(line));
  for (size_t i = 0; line[i] != '\0'; ++i) {
    assert(wrapped[i] == line[i] ||
           (wrapped[i] == '\n' && isspace(static_cast<unsigned char>(line[i])) != 0));
  }
  return 0;
}

#include "liblocal/text/vxstrftime.h"

#include <cstring>

#include "liblocal/text/utf8_convert.h"
#include "liblocal/text/utf8_files.h"

namespace {

constexpr size_t kFormatSize = 1024;  // bytes of the format in the locale's codeset
constexpr size_t kTextSize = 600;     // bytes of the formatted text there

}  // namespace

// The format is the caller's, in another codeset.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

size_t vxstrftime(char* output, size_t size, const char* format, const tm* time) {
  if (output == nullptr) return 0;
  char platform_format[kFormatSize];
  char text[kTextSize];
  ansi_mbs(platform_format, format, sizeof platform_format);
  if (strftime(text, sizeof text, platform_format, time) == 0) *text = '\0';
  utf8_mbs(output, text, size);
  return size == 0 ? 0 : strlen(output);
}

const char* vxstrptime(const char* text, const char* format, tm* time) {
  return strptime(syscalls_utf8dec(text), format, time);
}

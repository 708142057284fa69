#include "liblocal/text/vxprint.h"

#include <algorithm>
#include <cstring>

#include "liblocal/base/c_memory.h"
#include "liblocal/text/i18n_printf.h"
#include "liblocal/text/utf8_convert.h"
#include "liblocal/text/utf8_marks.h"

namespace {

// What a codeset makes of UTF-8 is at most twice as long: GB18030 takes four bytes for
// characters that have two in UTF-8.
constexpr size_t kLongestConversion = 2;

// Writes `text` as it is, with the result of fprintf.
int write_text(FILE* stream, const char* text, size_t length) {
  return fwrite(text, 1, length, stream) < length ? -1 : static_cast<int>(length);
}

int write_converted(FILE* stream, const char* text) {
  const size_t length = strlen(text);
  const size_t size = length * kLongestConversion + 1;
  c_unique_ptr<char> converted(static_cast<char*>(malloc(size)));
  if (converted == nullptr) return write_text(stream, text, length);
  ansi_mbs(converted.get(), text, size);
  return write_text(stream, converted.get(), strlen(converted.get()));
}

}  // namespace

int vxvfprintf(FILE* stream, const char* format, va_list arguments) {
  if (utf8_is_marked(fileno(stream))) return vfprintf(stream, format, arguments);
  char* area = nullptr;
  const auto length = static_cast<size_t>(i18n_vsprintf(nullptr, &area, format, arguments));
  c_unique_ptr<char> text(area);
  if (text == nullptr) return 0;
  if (ansi_is_same(area, length)) return write_text(stream, area, length);
  // A NUL that %c wrote does not end the text; it is left out.
  *std::remove(area, area + length, '\0') = '\0';
  return write_converted(stream, area);
}

int vxfprintf(FILE* stream, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int written = vxvfprintf(stream, format, arguments);
  va_end(arguments);
  return written;
}

int vxvprintf(const char* format, va_list arguments) {
  return vxvfprintf(stdout, format, arguments);
}

int vxprintf(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int written = vxvfprintf(stdout, format, arguments);
  va_end(arguments);
  return written;
}

int vxvsprintf(char* buffer, const char* format, va_list arguments) {
  return vsprintf(buffer, format, arguments);
}

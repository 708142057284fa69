#include "liblocal/vxprint.h"

#include <cstring>

#include "liblocal/c_memory.h"
#include "liblocal/i18n_printf.h"

int vxvfprintf(FILE* stream, const char* format, va_list arguments) {
  char* area = nullptr;
  i18n_vsprintf(nullptr, &area, format, arguments);
  c_unique_ptr<char> text(area);
  return text != nullptr ? fprintf(stream, "%s", text.get()) : 0;
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

#include "liblocal/vxprint.h"

int vxvfprintf(FILE* stream, const char* format, va_list arguments) {
  return vfprintf(stream, format, arguments);
}

int vxfprintf(FILE* stream, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  int written = vxvfprintf(stream, format, arguments);
  va_end(arguments);
  return written;
}

int vxprintf(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  int written = vxvfprintf(stdout, format, arguments);
  va_end(arguments);
  return written;
}

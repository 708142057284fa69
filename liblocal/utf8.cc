#include "liblocal/utf8.h"

#include <cerrno>

FILE* utf8_fopen(const char* path, const char* mode) { return fopen(path, mode); }

// Nothing converts text yet, so there is no mark to set or to remove.
void utf8_fp(FILE* /*stream*/) {}

// The platform's fgets, which gives up, and what it has read with it, when a signal
// interrupts the wait for more. Here the wait goes on.
char* vxfgets(char* buffer, int size, FILE* stream) {
  if (size < 1) return nullptr;
  char* at = buffer;
  while (at < buffer + size - 1 && (at == buffer || at[-1] != '\n')) {
    int byte = getc(stream);
    if (byte == EOF && ferror(stream) != 0 && errno == EINTR) {
      clearerr(stream);
      continue;
    }
    if (byte == EOF) break;
    *at++ = static_cast<char>(byte);
  }
  *at = '\0';
  return at > buffer && ferror(stream) == 0 ? buffer : nullptr;
}

int vxfclose(FILE* stream) { return fclose(stream); }

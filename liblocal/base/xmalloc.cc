#include "liblocal/base/xmalloc.h"

#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr uint32_t kPauseMs = 5000;

}  // namespace

void* xmalloc(size_t size) {
  void* memory;
  while ((memory = malloc(size)) == nullptr) _vx_pause_ms(kPauseMs);
  return memory;
}

void* xcalloc(size_t count, size_t size) {
  void* memory;
  while ((memory = calloc(count, size)) == nullptr) _vx_pause_ms(kPauseMs);
  return memory;
}

char* xstrdup(const char* text) {
  if (text == nullptr) return nullptr;
  size_t size = strlen(text) + 1;
  return static_cast<char*>(memcpy(xmalloc(size), text, size));
}

int _vx_pause_ms(uint32_t milliseconds) {
  timespec pause{static_cast<time_t>(milliseconds / 1000),
                 static_cast<long>(milliseconds % 1000) * 1000000};
  return nanosleep(&pause, nullptr);
}

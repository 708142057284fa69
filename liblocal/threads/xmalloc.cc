#include "liblocal/threads/xmalloc.h"

#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr uint32_t kPauseMs = 5000;

void wait_for_memory(uint32_t pause_ms) {
  timespec pause{static_cast<time_t>(pause_ms / 1000),
                 static_cast<long>(pause_ms % 1000) * 1000000};
  nanosleep(&pause, nullptr);
}

}  // namespace

void* xmalloc(size_t size) {
  void* memory;
  while ((memory = malloc(size)) == nullptr) wait_for_memory(kPauseMs);
  return memory;
}

void* xcalloc(size_t count, size_t size) { return _vx_calloc_every(count, size, kPauseMs); }

char* xstrdup(const char* text) {
  if (text == nullptr) return nullptr;
  size_t size = strlen(text) + 1;
  return static_cast<char*>(memcpy(xmalloc(size), text, size));
}

void* _vx_calloc_every(size_t count, size_t size, uint32_t pause_ms) {
  void* memory;
  while ((memory = calloc(count, size)) == nullptr) wait_for_memory(pause_ms);
  return memory;
}

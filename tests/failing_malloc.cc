#include "tests/failing_malloc.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>

namespace {

std::atomic<int> left = INT_MAX;
std::atomic<int> refusals_left = 0;
std::atomic<long> held = 0;

template <typename T>
T* hold(T* memory) {
  if (memory != nullptr) ++held;
  return memory;
}

bool grant() {
  if (left == INT_MAX || --left >= 0 || --refusals_left < 0) return true;
  errno = ENOMEM;
  return false;
}

}  // namespace

FailingMalloc::FailingMalloc(int count, int refusals) {
  refusals_left = refusals;
  left = count;
}
FailingMalloc::~FailingMalloc() { left = INT_MAX; }
bool FailingMalloc::failed() const { return left < 0; }
long pieces_held() { return held; }

// The names that the linker's --wrap gives to what is called and to the real one.
extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* memory, size_t size);
char* __real_strdup(const char* text);
void __real_free(void* memory);

void* __wrap_malloc(size_t size) { return grant() ? hold(__real_malloc(size)) : nullptr; }
void* __wrap_calloc(size_t count, size_t size) {
  return grant() ? hold(__real_calloc(count, size)) : nullptr;
}
void* __wrap_realloc(void* memory, size_t size) {
  if (!grant()) return nullptr;
  void* moved = __real_realloc(memory, size);
  return memory == nullptr ? hold(moved) : moved;
}
char* __wrap_strdup(const char* text) { return grant() ? hold(__real_strdup(text)) : nullptr; }
void __wrap_free(void* memory) {
  if (memory != nullptr) --held;
  __real_free(memory);
}
}

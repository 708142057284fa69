#include "liblocal/base/vx_atomic.h"

#include <utility>

#include "liblocal/base/system_lock.h"
#include "liblocal/base/vx_object.h"

struct vx_atomic {
  vx_object_header header;
  uint32_t value;  // guarded by system
  pthread_mutex_t system = PTHREAD_MUTEX_INITIALIZER;
};

namespace {

int32_t destroy(void* object) { return vx_atomic_destroy(static_cast<vx_atomic*>(object)); }

void finish(vx_atomic* atomic) { pthread_mutex_destroy(&atomic->system); }

// The result of `operation` on the value, under the mutex.
template <typename Operation>
uint32_t locked(vx_atomic* atomic, Operation operation) {
  if (atomic == nullptr) return static_cast<uint32_t>(_vx_error_null_argument());
  SystemLock lock(&atomic->system);
  return operation(atomic->value);
}

}  // namespace

vx_atomic* vx_atomic_new(uint32_t initial) {
  auto atomic = _vx_object_allocate<vx_atomic>();
  if (atomic == nullptr) return nullptr;
  atomic->value = initial;
  return _vx_object_register(atomic.get(), destroy) ? atomic.release() : nullptr;
}

uint32_t vx_atomic_increment(vx_atomic* atomic) {
  return locked(atomic, [](uint32_t& current) { return ++current; });
}

uint32_t vx_atomic_decrement(vx_atomic* atomic) {
  return locked(atomic, [](uint32_t& current) { return --current; });
}

uint32_t vx_atomic_exchange(vx_atomic* atomic, uint32_t value) {
  return locked(atomic, [=](uint32_t& current) { return std::exchange(current, value); });
}

uint32_t vx_atomic_exchange_add(vx_atomic* atomic, uint32_t addend) {
  return locked(atomic,
                [=](uint32_t& current) { return std::exchange(current, current + addend); });
}

uint32_t vx_atomic_exchange_compare(vx_atomic* atomic, uint32_t value, uint32_t expected) {
  return locked(atomic, [=](uint32_t& current) {
    return current == expected ? std::exchange(current, value) : current;
  });
}

int32_t vx_atomic_destroy(vx_atomic* atomic) { return _vx_object_destroy(atomic, finish); }

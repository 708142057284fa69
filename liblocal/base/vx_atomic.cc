#include "liblocal/base/vx_atomic.h"

#include "liblocal/base/system_lock.h"
#include "liblocal/base/vx_object.h"

struct vx_atomic {
  vx_object_header header;
  uint32_t value;  // guarded by system
  pthread_mutex_t system;
};

namespace {

int32_t destroy(void* object) { return vx_atomic_destroy(static_cast<vx_atomic*>(object)); }

void finish(vx_atomic* atomic) { pthread_mutex_destroy(&atomic->system); }

// Replaces the value by `next` of it, under the mutex. Returns the old value.
template <typename Next>
uint32_t update(vx_atomic* atomic, Next next) {
  SystemLock lock(&atomic->system);
  uint32_t old = atomic->value;
  atomic->value = next(old);
  return old;
}

uint32_t null_handle() { return static_cast<uint32_t>(_vx_error_null_argument()); }

}  // namespace

vx_atomic* vx_atomic_new(uint32_t initial) {
  auto atomic = _vx_object_allocate<vx_atomic>();
  if (atomic == nullptr) return nullptr;
  atomic->value = initial;
  if (int error = pthread_mutex_init(&atomic->system, nullptr); error != 0) {
    _vx_error_fail(error);
    return nullptr;
  }
  if (!_vx_object_register(atomic.get(), destroy)) {
    finish(atomic.get());
    return nullptr;
  }
  return atomic.release();
}

uint32_t vx_atomic_increment(vx_atomic* atomic) {
  if (atomic == nullptr) return null_handle();
  return update(atomic, [](uint32_t old) { return old + 1; }) + 1;
}

uint32_t vx_atomic_decrement(vx_atomic* atomic) {
  if (atomic == nullptr) return null_handle();
  return update(atomic, [](uint32_t old) { return old - 1; }) - 1;
}

uint32_t vx_atomic_exchange(vx_atomic* atomic, uint32_t value) {
  if (atomic == nullptr) return null_handle();
  return update(atomic, [value](uint32_t) { return value; });
}

uint32_t vx_atomic_exchange_add(vx_atomic* atomic, uint32_t addend) {
  if (atomic == nullptr) return null_handle();
  return update(atomic, [addend](uint32_t old) { return old + addend; });
}

uint32_t vx_atomic_exchange_compare(vx_atomic* atomic, uint32_t value, uint32_t expected) {
  if (atomic == nullptr) return null_handle();
  return update(atomic, [=](uint32_t old) { return old == expected ? value : old; });
}

int32_t vx_atomic_destroy(vx_atomic* atomic) { return _vx_object_destroy(atomic, finish); }

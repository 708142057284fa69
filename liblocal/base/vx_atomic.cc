#include "liblocal/base/vx_atomic.h"

#include <atomic>

#include "liblocal/base/vx_object.h"

struct vx_atomic {
  vx_object_header header;
  uint32_t value;
};

namespace {

int32_t destroy(void* object) { return vx_atomic_destroy(static_cast<vx_atomic*>(object)); }

// The result of `operation` on the value.
template <typename Operation>
uint32_t result_of(vx_atomic* atomic, Operation operation) {
  if (atomic == nullptr) return static_cast<uint32_t>(_vx_error_null_argument());
  return operation(std::atomic_ref(atomic->value));
}

}  // namespace

vx_atomic* vx_atomic_new(uint32_t initial) {
  auto atomic = _vx_object_allocate<vx_atomic>();
  if (atomic == nullptr) return nullptr;
  atomic->value = initial;
  return _vx_object_register(atomic.get(), destroy) ? atomic.release() : nullptr;
}

uint32_t vx_atomic_increment(vx_atomic* atomic) {
  return result_of(atomic, [](auto current) { return ++current; });
}

uint32_t vx_atomic_decrement(vx_atomic* atomic) {
  return result_of(atomic, [](auto current) { return --current; });
}

uint32_t vx_atomic_exchange(vx_atomic* atomic, uint32_t value) {
  return result_of(atomic, [=](auto current) { return current.exchange(value); });
}

uint32_t vx_atomic_exchange_add(vx_atomic* atomic, uint32_t addend) {
  return result_of(atomic, [=](auto current) { return current.fetch_add(addend); });
}

uint32_t vx_atomic_exchange_compare(vx_atomic* atomic, uint32_t value, uint32_t expected) {
  return result_of(atomic, [=](auto current) {
    uint32_t before = expected;  // of another value it becomes that
    current.compare_exchange_strong(before, value);
    return before;
  });
}

int32_t vx_atomic_destroy(vx_atomic* atomic) { return _vx_object_destroy(atomic); }

#include "liblocal/base/vx_reference.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "liblocal/base/system_lock.h"
#include "liblocal/base/vx_error.h"
#include "liblocal/base/xmalloc.h"

namespace {

constexpr int32_t kGrowth = 16;  // slots at first, and added at a time

struct Slot {
  void* object;  // null while the slot is free
  uint32_t count;
  vx_destroy_function destroy;
};

pthread_mutex_t table_mutex = PTHREAD_MUTEX_INITIALIZER;
Slot* _VX_reference_table = nullptr;  // guarded by table_mutex, as is all below
int32_t table_size = 0;
int32_t first_free = 0;  // no slot below it is free

bool grow() {
  const size_t size = static_cast<size_t>(table_size + kGrowth) * sizeof(Slot);
  // The first slots are waited for.
  void* larger = table_size == 0 ? xmalloc(size) : realloc(_VX_reference_table, size);
  if (larger == nullptr) return false;
  _VX_reference_table = static_cast<Slot*>(larger);
  std::fill_n(_VX_reference_table + table_size, kGrowth, Slot{});
  table_size += kGrowth;
  return true;
}

// The slot of `object`, null when another object or none is there.
Slot* slot_of(const void* object) {
  int32_t number = static_cast<const vx_object_header*>(object)->slot;
  if (number < 0 || number >= table_size) return nullptr;
  Slot* slot = _VX_reference_table + number;
  return slot->object == object ? slot : nullptr;
}

// 0 when `object` can be looked up, else the system error to report.
int32_t check(const void* object) {
  bool valid = object != nullptr &&
               (static_cast<const vx_object_header*>(object)->flags & kVxObjectValid) != 0;
  return valid ? 0 : EINVAL;
}

}  // namespace

int32_t _vx_reference_from_constructor(void* object, vx_destroy_function destroy) {
  SystemLock lock(&table_mutex);
  while (first_free < table_size && _VX_reference_table[first_free].object != nullptr) ++first_free;
  if (first_free == table_size && !grow()) {
    _vx_error_fail(ENOMEM);
    return -1;
  }
  _VX_reference_table[first_free] = {object, 1, destroy};
  return first_free++;
}

int32_t _vx_unreference_from_destructor(void* object) {
  SystemLock lock(&table_mutex);
  Slot* slot = slot_of(object);
  if (slot == nullptr) {
    _vx_error_fail(ENOENT);
    return -1;
  }
  if (slot->count < 2) {
    *slot = {};
    first_free = std::min(first_free, static_cast<int32_t>(slot - _VX_reference_table));
    return 0;
  }
  return static_cast<int32_t>(slot->count--);
}

int32_t vx_reference(void* object) {
  if (int32_t error = check(object); error != 0) return _vx_error_fail(error);
  SystemLock lock(&table_mutex);
  Slot* slot = slot_of(object);
  if (slot == nullptr) return _vx_error_fail(ENOENT);
  ++slot->count;
  return 0;
}

int32_t vx_unreference(void* object) {
  if (int32_t error = check(object); error != 0) return _vx_error_fail(error);
  vx_destroy_function destroy = nullptr;
  {
    SystemLock lock(&table_mutex);
    Slot* slot = slot_of(object);
    if (slot == nullptr) return _vx_error_fail(ENOENT);
    if (--slot->count == 0) destroy = slot->destroy;
  }
  // The destroy function takes the table's mutex itself.
  return destroy != nullptr ? destroy(object) : 0;
}

// How the handles of the primitives are made and destroyed: allocation, header and
// slot in the reference table. For the primitives alone.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/vx_error.h"
#include "liblocal/base/vx_reference.h"

/// A new T{} that begins with a vx_object_header; null with ENOMEM recorded.
template <typename T>
[[nodiscard]] c_unique_ptr<T> _vx_object_allocate() {
  c_unique_ptr<T> object(c_new<T>());
  if (object == nullptr) _vx_error_fail(ENOMEM);
  return object;
}

/// Gives `object` its slot, to be destroyed by `destroy`, and makes it valid. False
/// with the error recorded when there is no slot.
template <typename T>
[[nodiscard]] bool _vx_object_register(T* object, vx_destroy_function destroy) {
  object->header.slot = _vx_reference_from_constructor(object, destroy);
  if (object->header.slot < 0) return false;
  object->header.flags = kVxObjectValid;
  return true;
}

/// Drops one reference to `object`. With the last, calls `finish`, which releases what the
/// object holds, and frees it. Returns 0; 2 for null; 49 when the object is not registered.
template <typename T>
int32_t _vx_object_destroy(T* object, void (*finish)(T* object)) {
  if (object == nullptr) return _vx_error_null_argument();
  int32_t others = _vx_unreference_from_destructor(object);
  if (others < 0) return vx_error_from_errno(ENOENT);
  if (others != 0) return 0;
  object->header.flags = 0;
  finish(object);
  free(object);
  return 0;
}

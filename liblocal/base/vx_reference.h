// Reference counts of library objects, in one table for the whole process.
//
// Every handle begins with a vx_object_header. A new handle has count 1; each vx_reference adds
// one; each destroy or vx_unreference takes one off. The last one destroys the object.
//
// Thread safety: all operations, under the table's mutex, which is never held
// while a destroy function runs.
#pragma once

#include <cstdint>

/// How every library object begins.
struct vx_object_header {
  uint32_t flags;  //!< kVxObjectValid while the object lives
  int32_t slot;    //!< its number in the reference table
};

/// The flag of an object that lives.
constexpr uint32_t kVxObjectValid = 1;

/// Destroys an object; the result is that of the object's own destroy operation.
using vx_destroy_function = int32_t (*)(void* object);

/// Takes the lowest free slot for `object`, with count 1. Returns the slot's
/// number, or -1 with the system error recorded when the table cannot grow.
[[nodiscard]] int32_t _vx_reference_from_constructor(void* object, vx_destroy_function destroy);

/// The first step of every destroy operation: takes one reference off. Returns 0
/// when it was the last and the slot is free (the caller then really destroys the
/// object); the count before when others remain (the caller keeps the object); -1
/// with ENOENT recorded when the slot holds another object.
[[nodiscard]] int32_t _vx_unreference_from_destructor(void* object);

/// Adds a reference to `object`, which begins with a vx_object_header. Returns 0;
/// 31 with EINVAL recorded when it is null or not valid; 49 with ENOENT recorded
/// when its slot holds another object.
int32_t vx_reference(void* object);

/// Takes a reference off `object` and, with the last, destroys it and returns the
/// result of that. Errors as vx_reference.
int32_t vx_unreference(void* object);

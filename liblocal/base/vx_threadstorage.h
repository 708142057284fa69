// Thread-specific storage: one pointer per thread under a key.
//
// A null handle gives 2 (null from the look-up) with EINVAL recorded. Handles are
// counted (vx_reference.h). Thread safe.
#pragma once

#include <cstdint>

struct vx_threadstorage;

/// A new key with one reference; null with the error recorded when it cannot be
/// made. `destructor`, unless null, is called at the end of each thread with its
/// value when that is not null. Give it back with vx_threadstorage_destroy.
[[nodiscard]] vx_threadstorage* vx_threadstorage_new(void (*destructor)(void* value));

/// The calling thread's value, null until one is set.
[[nodiscard]] void* vx_threadstorage_get(vx_threadstorage* storage);

/// Sets the calling thread's value. Returns 0 or a library error code.
int32_t vx_threadstorage_set(vx_threadstorage* storage, void* value);

/// Drops one reference; the last deletes the key, without calling destructors.
/// Returns 0; 2 for a null handle; 49 for a handle that is no longer registered.
int32_t vx_threadstorage_destroy(vx_threadstorage* storage);

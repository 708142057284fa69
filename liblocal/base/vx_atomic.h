// Atomic 32-bit counters. Each holds its own mutex for the whole operation.
//
// A null handle gives 2 with EINVAL recorded. Handles are counted
// (vx_reference.h).
#pragma once

#include <cstdint>

struct vx_atomic;

/// A new counter of value `initial` with one reference; null with the error
/// recorded when it cannot be made. Give it back with vx_atomic_destroy.
[[nodiscard]] vx_atomic* vx_atomic_new(uint32_t initial);

/// Adds one (modulo 2^32). Returns the new value.
uint32_t vx_atomic_increment(vx_atomic* atomic);

/// Takes one off (modulo 2^32). Returns the new value.
uint32_t vx_atomic_decrement(vx_atomic* atomic);

/// Stores `value`. Returns the old value.
uint32_t vx_atomic_exchange(vx_atomic* atomic, uint32_t value);

/// Adds `addend` (modulo 2^32). Returns the old value.
uint32_t vx_atomic_exchange_add(vx_atomic* atomic, uint32_t addend);

/// Stores `value` only if the current value equals `expected`. Returns the old
/// value.
uint32_t vx_atomic_exchange_compare(vx_atomic* atomic, uint32_t value, uint32_t expected);

/// Drops one reference; the last frees the counter. Returns 0; 2 for a null handle;
/// 49 for a handle that is no longer registered.
int32_t vx_atomic_destroy(vx_atomic* atomic);

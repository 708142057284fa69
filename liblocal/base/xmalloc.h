// Allocators that never fail: they wait until memory is there.
//
// Memory comes from the C allocators and is released with free. Thread safe.
#pragma once

#include <cstddef>
#include <cstdint>

/// Memory of `size` bytes, never null. A failed allocation is tried again every
/// 5000 ms, without limit.
[[nodiscard, gnu::malloc]] void* xmalloc(size_t size);

/// Zeroed memory for `count` items of `size` bytes; waits as xmalloc.
[[nodiscard, gnu::malloc]] void* xcalloc(size_t count, size_t size);

/// A copy of `text`, made as by xmalloc; null for null.
[[nodiscard]] char* xstrdup(const char* text);

/// Milliseconds between attempts to make a variable block or what it needs.
constexpr uint32_t kBlockPauseMs = 2000;

/// Sleeps `milliseconds`. Returns 0; -1 with `errno` set, but no error recorded, when a signal
/// ended the sleep.
int _vx_pause_ms(uint32_t milliseconds);

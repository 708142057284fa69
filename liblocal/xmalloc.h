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

/// What the variable blocks are made with: memory of `size` bytes, the first `zeroed` of
/// them 0, with its own pause between attempts. The rest is not touched, so that a text
/// buffer at the end of a block costs nothing until it is used.
[[nodiscard, gnu::malloc]] void* _vx_block_every(size_t size, size_t zeroed, uint32_t pause_ms);

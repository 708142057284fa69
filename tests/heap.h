// How much of the C library's heap is in use.
#pragma once

#include <malloc.h>

#include <cstddef>

/// The bytes that `work`, run `times` times, leaves allocated, after a first run that makes
/// what lasts. Under a sanitizer, which has a heap of its own and looks for leaks itself, 0.
inline long bytes_left_by(int times, auto work) {
  work();
  const size_t before = mallinfo2().uordblks;
  for (int i = 0; i < times; ++i) work();
  return static_cast<long>(mallinfo2().uordblks) - static_cast<long>(before);
}

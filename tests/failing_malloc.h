// Allocations that fail on demand. A test program that links `failing_malloc` has
// the malloc, calloc, realloc, strdup and free calls of its own objects and static libraries
// replaced; shared libraries keep theirs.
#pragma once

#include <malloc.h>

#include <climits>
#include <cstddef>

/// Lets `count` allocations of this process succeed and the `refusals` after them
/// fail (every later one, unless said), until the object goes.
class FailingMalloc {
 public:
  explicit FailingMalloc(int count, int refusals = INT_MAX);
  ~FailingMalloc();
  FailingMalloc(const FailingMalloc&) = delete;
  FailingMalloc& operator=(const FailingMalloc&) = delete;

  /// True once an allocation was refused.
  bool failed() const;
};

/// The pieces of memory that were allocated there and not given back there.
long pieces_held();

/// The pieces that `work` leaves, after a first run that makes what lasts.
inline long pieces_left_by(auto work) {
  work();
  const long before = pieces_held();
  work();
  return pieces_held() - before;
}

/// The bytes that `work`, run `times` times, leaves allocated, after a first run that makes
/// what lasts; 0 under the sanitizers, which have a heap of their own.
inline long bytes_left_by(int times, auto work) {
  work();
  const size_t before = mallinfo2().uordblks;
  for (int i = 0; i < times; ++i) work();
  return static_cast<long>(mallinfo2().uordblks - before);
}

// Allocations that fail on demand: malloc, calloc, realloc, strdup and free as the objects
// and static libraries of a test program call them; shared libraries keep theirs.
#pragma once

#include <malloc.h>

#include <climits>
#include <cstddef>

/// Lets `count` allocations succeed and the `refusals` after them fail, until it goes.
class FailingMalloc {
 public:
  explicit FailingMalloc(int count, int refusals = INT_MAX);
  ~FailingMalloc();
  FailingMalloc(const FailingMalloc&) = delete;
  FailingMalloc& operator=(const FailingMalloc&) = delete;
  bool failed() const;  // once an allocation was refused
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

/// The bytes that `work`, run `times` times, leaves in the same way; 0 under the sanitizers,
/// which have a heap of their own.
inline long bytes_left_by(int times, auto work) {
  work();
  const size_t before = mallinfo2().uordblks;
  for (int i = 0; i < times; ++i) work();
  return static_cast<long>(mallinfo2().uordblks - before);
}

// Allocations that fail on demand: malloc, calloc, realloc, strdup and free as the objects
// and static libraries of a test program call them; shared libraries keep theirs.
#pragma once

#include <climits>

/// Lets `count` allocations succeed and the `refusals` after them fail, until it goes.
class FailingMalloc {
 public:
  explicit FailingMalloc(int count, int refusals = INT_MAX);
  ~FailingMalloc();
  FailingMalloc(const FailingMalloc&) = delete;
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

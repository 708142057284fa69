// Allocations that fail on demand. A test program that links `failing_malloc` has
// the malloc, calloc, realloc and strdup calls of its own objects and static libraries
// replaced; shared libraries keep theirs.
#pragma once

#include <climits>

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

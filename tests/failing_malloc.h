// Allocations that fail on demand. A test program that links `failing_malloc` has
// the malloc, calloc, realloc and strdup calls of its own objects and static libraries
// replaced; shared libraries keep theirs.
#pragma once

/// Lets `count` allocations of this process succeed and every later one fail,
/// until the object goes.
class FailingMalloc {
 public:
  explicit FailingMalloc(int count);
  ~FailingMalloc();
  FailingMalloc(const FailingMalloc&) = delete;
  FailingMalloc& operator=(const FailingMalloc&) = delete;

  /// True once an allocation was refused.
  bool failed() const;
};

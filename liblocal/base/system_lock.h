// Holds a system mutex for a scope.
#pragma once

#include <pthread.h>

/// Locks a mutex of the system, which is not recursive, until the scope ends. The primitives
/// use it where vx_mutex, which is built on them, cannot be used.
class SystemLock {
 public:
  /// Locks `mutex`, which outlives the scope and is not held by the caller.
  explicit SystemLock(pthread_mutex_t* mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
  ~SystemLock() { pthread_mutex_unlock(mutex_); }
  SystemLock(const SystemLock&) = delete;
  SystemLock& operator=(const SystemLock&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

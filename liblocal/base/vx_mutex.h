// Error-checking mutexes: relocking by the owner and unlocking by another thread
// are reported, not performed.
//
// Each operation returns 0 or a library error code, with the system error recorded
// as the thread's last error; a null handle gives 2 with EINVAL recorded. Handles
// are counted (vx_reference.h).
#pragma once

#include <atomic>
#include <cstdint>

struct vx_mutex;

/// A new, unlocked mutex with one reference; null with the error recorded when it
/// cannot be made. Give it back with vx_mutex_destroy.
[[nodiscard]] vx_mutex* vx_mutex_new();

/// Waits for the mutex and locks it; 18 (EDEADLK) when the caller holds it already.
int32_t vx_mutex_lock(vx_mutex* mutex);

/// Locks the mutex if it is free; 12 (EBUSY) when it is not.
[[nodiscard]] int32_t vx_mutex_trylock(vx_mutex* mutex);

/// Unlocks the mutex; 69 (EPERM) when the caller does not hold it.
int32_t vx_mutex_unlock(vx_mutex* mutex);

/// Drops one reference. With the last, unlocks, destroys and frees the mutex.
/// Returns 0; 2 for a null handle; 49 for a handle that is no longer registered.
int32_t vx_mutex_destroy(vx_mutex* mutex);

/// The mutex in `slot`, made and put there by the first call, however many threads
/// race; null when it cannot be made; a later call tries again.
[[nodiscard]] vx_mutex* vx_mutex_made_once(std::atomic<vx_mutex*>* slot);

/// vx_mutex_made_once for a mutex that the process cannot do without: when it cannot be made
/// the process is sent SIGTERM, and the result is null.
[[nodiscard]] vx_mutex* vx_mutex_required(std::atomic<vx_mutex*>* slot);

/// Holds a mutex for a scope. A scope entered by the thread that holds the mutex
/// already leaves it locked.
class VxMutexLock {
 public:
  /// Locks `mutex`, which outlives the scope.
  explicit VxMutexLock(vx_mutex* mutex) : mutex_(mutex), held_(vx_mutex_lock(mutex) == 0) {}
  ~VxMutexLock() {
    if (held_) vx_mutex_unlock(mutex_);
  }
  VxMutexLock(const VxMutexLock&) = delete;
  VxMutexLock& operator=(const VxMutexLock&) = delete;

 private:
  vx_mutex* mutex_;
  bool held_;
};

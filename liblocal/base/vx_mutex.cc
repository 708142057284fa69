#include "liblocal/base/vx_mutex.h"

#include <pthread.h>

#include <csignal>

#include "liblocal/base/vx_object.h"

struct vx_mutex {
  vx_object_header header;
  pthread_mutex_t system;
};

namespace {

int32_t destroy(void* object) { return vx_mutex_destroy(static_cast<vx_mutex*>(object)); }

int32_t operate(vx_mutex* mutex, int (*operation)(pthread_mutex_t*)) {
  if (mutex == nullptr) return _vx_error_null_argument();
  int error = operation(&mutex->system);
  return error == 0 ? 0 : _vx_error_fail(error);
}

void finish(vx_mutex* mutex) {
  // Locked first if it is free, so that the unlocking is always of a locked mutex.
  (void)pthread_mutex_trylock(&mutex->system);
  pthread_mutex_unlock(&mutex->system);
  pthread_mutex_destroy(&mutex->system);
}

}  // namespace

vx_mutex* vx_mutex_new() {
  auto mutex = _vx_object_allocate<vx_mutex>();
  if (mutex == nullptr) return nullptr;
  mutex->system = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
  return _vx_object_register(mutex.get(), destroy) ? mutex.release() : nullptr;
}

int32_t vx_mutex_lock(vx_mutex* mutex) { return operate(mutex, pthread_mutex_lock); }

int32_t vx_mutex_trylock(vx_mutex* mutex) { return operate(mutex, pthread_mutex_trylock); }

int32_t vx_mutex_unlock(vx_mutex* mutex) { return operate(mutex, pthread_mutex_unlock); }

int32_t vx_mutex_destroy(vx_mutex* mutex) { return _vx_object_destroy(mutex, finish); }

vx_mutex* vx_mutex_made_once(std::atomic<vx_mutex*>* slot) {
  vx_mutex* there = slot->load(std::memory_order_acquire);
  if (there != nullptr) return there;
  vx_mutex* made = vx_mutex_new();
  if (made == nullptr) return nullptr;
  if (slot->compare_exchange_strong(there, made, std::memory_order_acq_rel)) return made;
  vx_mutex_destroy(made);
  return there;
}

vx_mutex* vx_mutex_required(std::atomic<vx_mutex*>* slot) {
  vx_mutex* mutex = vx_mutex_made_once(slot);
  if (mutex == nullptr) raise(SIGTERM);
  return mutex;
}

#include "liblocal/threads/vx_orvane.h"

#include <pthread.h>

#include <atomic>
#include <csignal>
#include <cstdlib>

namespace {

// On the system's own key and once-control: the library's report their failures
// through this very record.
pthread_key_t _VX_orvane_storage;
pthread_once_t storage_once = PTHREAD_ONCE_INIT;
std::atomic<void (*)(vx_thread*)> identity_release = nullptr;

void release(void* storage) {
  auto* record = static_cast<vx_orvane*>(storage);
  auto give_up = identity_release.load(std::memory_order_acquire);
  if (record->identity != nullptr && give_up != nullptr) give_up(record->identity);
  free(record->last_error);
  free(record);
}

// The thread that ends the process runs no key destructors.
void release_at_exit() {
  void* record = pthread_getspecific(_VX_orvane_storage);
  if (record == nullptr) return;
  pthread_setspecific(_VX_orvane_storage, nullptr);
  release(record);
}

void create_storage() {
  if (pthread_key_create(&_VX_orvane_storage, release) != 0) raise(SIGTERM);
  atexit(release_at_exit);
}

}  // namespace

vx_orvane* _vx_orvane_get() {
  pthread_once(&storage_once, create_storage);
  auto* record = static_cast<vx_orvane*>(pthread_getspecific(_VX_orvane_storage));
  if (record != nullptr) return record;
  record = static_cast<vx_orvane*>(calloc(1, sizeof(vx_orvane)));
  if (record == nullptr || pthread_setspecific(_VX_orvane_storage, record) != 0) raise(SIGTERM);
  return record;
}

void _vx_orvane_set_identity_release(void (*release_identity)(vx_thread*)) {
  identity_release.store(release_identity, std::memory_order_release);
}

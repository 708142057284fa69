#include "liblocal/base/vx_orvane.h"

#include <pthread.h>

#include <atomic>
#include <csignal>
#include <cstdlib>

#include "liblocal/base/xmalloc.h"

namespace {

// On the system's own key and once-control: the library's report their failures
// through this very record.
pthread_key_t _VX_orvane_storage;
pthread_once_t storage_once = PTHREAD_ONCE_INIT;
std::atomic<void (*)(vx_thread*)> identity_release = nullptr;

void release(void* storage) {
  auto* record = static_cast<vx_orvane*>(storage);
  if (record->identity != nullptr) identity_release.load()(record->identity);
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

// A thread without its record cannot even report that: the process is asked to end.
// Where it goes on nevertheless, the next attempt may do better.
void ask_to_end() {
  raise(SIGTERM);
  _vx_pause_ms(kBlockPauseMs);
}

void create_storage() {
  while (pthread_key_create(&_VX_orvane_storage, release) != 0) ask_to_end();
  atexit(release_at_exit);
}

}  // namespace

vx_orvane* _vx_orvane_get() {
  pthread_once(&storage_once, create_storage);
  auto* record = static_cast<vx_orvane*>(pthread_getspecific(_VX_orvane_storage));
  if (record != nullptr) return record;
  while ((record = static_cast<vx_orvane*>(calloc(1, sizeof(vx_orvane)))) == nullptr) ask_to_end();
  while (pthread_setspecific(_VX_orvane_storage, record) != 0) ask_to_end();
  return record;
}

void _vx_orvane_set_identity_release(void (*release_identity)(vx_thread*)) {
  identity_release = release_identity;
}

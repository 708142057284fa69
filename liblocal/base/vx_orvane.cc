#include "liblocal/base/vx_orvane.h"

#include <pthread.h>

#include <csignal>
#include <cstdlib>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/vx_thread.h"
#include "liblocal/base/xmalloc.h"

namespace {

// The system's own key and once-control: those of the library record their failures in the
// record that is made here.
pthread_key_t _VX_orvane_storage;
pthread_once_t storage_once = PTHREAD_ONCE_INIT;

void release(void* storage) {
  auto* record = static_cast<vx_orvane*>(storage);
  if (record->identity != nullptr) vx_thread_destroy(record->identity);
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

// A thread without its record cannot report an error, so the process is asked to end. When it
// ignores that, the caller tries again after the pause.
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
  while ((record = c_new<vx_orvane>()) == nullptr) ask_to_end();
  while (pthread_setspecific(_VX_orvane_storage, record) != 0) ask_to_end();
  return record;
}

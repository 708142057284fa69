#include "liblocal/threads/varp.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "liblocal/threads/vx_error.h"
#include "liblocal/threads/vx_mutex.h"
#include "liblocal/threads/xmalloc.h"

namespace {

struct VarpRecord {
  void* data;
  void (*clean)(void* data);
  VarpRecord* next;
};

vx_once_control set_up_once;
vx_mutex* varp_lock = nullptr;
VarpRecord* Start_varp_list = nullptr;  // newest first; guarded by varp_lock
std::atomic<int> process_exiting = 0;   // written under varp_lock
std::atomic<bool> closed = false;       // the exit runner has let go of varp_lock
std::atomic<int> lock_users = 0;        // threads between looking at closed and leaving the lock
std::atomic<void (*)(const char* text)> error_printer = nullptr;

// The varp lock for a scope, unless it is closed. The lock goes at exit while other
// threads may still come: either they see that it is closed, or the runner sees
// them and lets the lock be. A cleaner that comes back holds the lock already.
class RegistryLock {
 public:
  RegistryLock() {
    ++lock_users;
    held_ = !closed && vx_mutex_lock(varp_lock) == 0;
  }
  ~RegistryLock() {
    if (held_) vx_mutex_unlock(varp_lock);
    --lock_users;
  }
  RegistryLock(const RegistryLock&) = delete;
  RegistryLock& operator=(const RegistryLock&) = delete;

 private:
  bool held_ = false;
};

// Runs at process exit. A cleaner that is the first to touch another module's
// process block adds to the list; that block is cleaned next.
void clean_all() {
  vx_mutex_lock(varp_lock);
  process_exiting = 1;
  while (VarpRecord* record = Start_varp_list) {
    Start_varp_list = record->next;
    if (record->clean != nullptr) record->clean(record->data);
    free(record);
  }
  vx_mutex_unlock(varp_lock);
  closed = true;
  if (lock_users == 0) vx_mutex_destroy(varp_lock);
}

void set_up() {
  varp_lock = vx_mutex_new();
  if (varp_lock == nullptr) {
    char reason[256];
    char text[sizeof reason + 32];
    vx_error_get_message(reason, sizeof reason);
    snprintf(text, sizeof text, "Failed to create varp lock: %s\n", reason);
    if (auto print = error_printer.load(); print != nullptr) {
      print(text);
    } else {
      fputs(text, stderr);
    }
  }
  vx_atexit(clean_all);
}

}  // namespace

void varp_add_data(void* data, void (*clean)(void* data)) {
  vx_once(&set_up_once, set_up);
  auto* record = static_cast<VarpRecord*>(xmalloc(sizeof(VarpRecord)));
  RegistryLock lock;
  if (closed) {
    free(record);
    return;
  }
  *record = {data, clean, Start_varp_list};
  Start_varp_list = record;
}

int is_proc_exiting() {
  if (process_exiting != 0) return 1;  // for good: no need to wait for the cleaners
  vx_once(&set_up_once, set_up);
  RegistryLock lock;
  return process_exiting;
}

void varp_set_error_printer(void (*print)(const char* text)) { error_printer = print; }

vx_threadstorage* _varp_new_key(const char* module, void (*clean)(void* block)) {
  vx_threadstorage* key = vx_threadstorage_new(clean);
  if (key == nullptr) {
    fprintf(stderr, "create_thread_key_%s: unable to create thread-local storage key.", module);
    fflush(stdout);
    // Without running the exit list: its functions would ask for the key that is
    // being made here, and wait for ever.
    _exit(1);
  }
  return key;
}

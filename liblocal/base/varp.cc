#include "liblocal/base/varp.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "liblocal/base/text_sizes.h"
#include "liblocal/base/vx_error.h"
#include "liblocal/base/vx_mutex.h"
#include "liblocal/base/xmalloc.h"

// Declared here because its header is in liblocal/messages, a layer above.
void printerr(const char* format, ...);

namespace {

struct VarpRecord {
  void* data;
  void (*clean)(void* data);
  VarpRecord* next;
};

vx_once_control set_up_once;
vx_mutex* varp_lock = nullptr;          // kept to the end of the process: threads may come late
VarpRecord* Start_varp_list = nullptr;  // newest first; guarded by varp_lock
std::atomic<int> process_exiting = 0;

// Runs at process exit. A cleaner that is the first to use another module's process block adds
// it to the list; that block is cleaned next.
void clean_all() {
  VxMutexLock lock(varp_lock);
  process_exiting = 1;
  while (VarpRecord* record = Start_varp_list) {
    Start_varp_list = record->next;
    if (record->clean != nullptr) record->clean(record->data);
    free(record);
  }
}

void set_up() {
  varp_lock = vx_mutex_new();
  if (varp_lock == nullptr) {
    char reason[kErrorTextSize];
    vx_error_get_message(reason, sizeof reason);
    printerr("Failed to create varp lock: %s\n", reason);
  }
  vx_atexit(clean_all);
}

}  // namespace

void varp_add_data(void* data, void (*clean)(void* data)) {
  vx_once(&set_up_once, set_up);
  auto* record = static_cast<VarpRecord*>(xmalloc(sizeof(VarpRecord)));
  VxMutexLock lock(varp_lock);
  *record = {data, clean, Start_varp_list};
  Start_varp_list = record;
}

int is_proc_exiting() { return process_exiting; }

void* _varp_allocate(size_t size) {
  void* memory;
  while ((memory = calloc(1, size)) == nullptr) _vx_pause_ms(kBlockPauseMs);
  return memory;
}

void* _varp_map(size_t size) {
  for (;;) {
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory != MAP_FAILED) return memory;
    _vx_pause_ms(kBlockPauseMs);
  }
}

vx_threadstorage* _varp_new_key(const char* module, void (*clean)(void* block)) {
  vx_threadstorage* key = vx_threadstorage_new(clean);
  if (key == nullptr) {
    fprintf(stderr, "create_thread_key_%s: unable to create thread-local storage key.", module);
    fflush(nullptr);
    // The exit list is not run: its functions would wait for the key that is being made here.
    _exit(1);
  }
  return key;
}

void _varp_keep(vx_threadstorage* key, void* block) {
  while (vx_threadstorage_set(key, block) != 0) _vx_pause_ms(kBlockPauseMs);
}

#include "liblocal/messages/i18n_3.h"

#include <sched.h>

#include <atomic>
#include <cstdio>

#include "liblocal/base/vx_mutex.h"

namespace {

char joined[kJoinedTexts][kJoinedSize];
int slot;  // of the last text; guarded by slot_mutex
std::atomic<vx_mutex*> slot_mutex;

// Waits for the memory of the lock.
vx_mutex* slot_lock() {
  for (;;) {
    vx_mutex* mutex = vx_mutex_made_once(&slot_mutex);
    if (mutex != nullptr) return mutex;
    sched_yield();
  }
}

int next_slot() {
  VxMutexLock lock(slot_lock());
  if (++slot == kJoinedTexts) slot = 0;
  return slot;
}

const char* or_empty(const char* text) { return text != nullptr ? text : ""; }

}  // namespace

const char* i18n_3(const char* first, const char* second, const char* third) {
  char* text = joined[next_slot()];
  snprintf(text, kJoinedSize, "%s%s%s", or_empty(first), or_empty(second), or_empty(third));
  return text;
}

#include "liblocal/base/vx_atexit.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/system_lock.h"
#include "liblocal/base/text_sizes.h"
#include "liblocal/base/vx_atomic.h"
#include "liblocal/base/vx_error.h"
#include "liblocal/base/vx_mutex.h"
#include "liblocal/base/vx_once.h"

namespace {

using ExitFunction = void (*)();

struct ExitRecord {
  ExitFunction function;
  ExitRecord* next;
};

pthread_mutex_t list_mutex = PTHREAD_MUTEX_INITIALIZER;
ExitRecord* first_record = nullptr;  // newest first; guarded by list_mutex

// set_up makes these once. They stay to the end of the process.
struct Kept {
  vx_atomic* enabled;  // 1: the functions run at process exit
  vx_mutex* progname_mutex;
};
Kept made;

// Takes a record out of the list and returns its function. REQUIRES: list_mutex is held.
ExitFunction take(ExitRecord** link) {
  const c_unique_ptr<ExitRecord> record(*link);
  *link = record->next;
  return record->function;
}

ExitFunction take_first() {
  SystemLock lock(&list_mutex);
  return first_record != nullptr ? take(&first_record) : nullptr;
}

void run_functions() {
  if (vx_atomic_exchange_add(made.enabled, 0) != 1) return;
  while (ExitFunction function = take_first()) function();
}

void end_process_without(const char* what) {
  char reason[kErrorTextSize];
  vx_error_get_message(reason, sizeof reason);
  fprintf(stderr, "Failed to create %s: %s\n", what, reason);
  raise(SIGTERM);
}

void set_up() {
  // Registers its clean-up first, so that it runs last: the functions may still record errors.
  _vx_orvane_get();
  made.enabled = vx_atomic_new(1);
  if (made.enabled == nullptr) end_process_without("internal atexit list");
  made.progname_mutex = vx_mutex_new();
  if (made.progname_mutex == nullptr) end_process_without("progname mutex");
  atexit(run_functions);
}

const Kept& kept() {
  static vx_once_control once;
  vx_once(&once, set_up);
  return made;
}

}  // namespace

int32_t vx_atexit(void (*function)()) {
  if (function == nullptr) return _vx_error_null_argument();
  (void)kept();
  auto* added = c_new<ExitRecord>();
  if (added == nullptr) return _vx_error_fail(ENOMEM);
  SystemLock lock(&list_mutex);
  *added = {function, first_record};
  first_record = added;
  return 0;
}

int32_t vx_unatexit(void (*function)()) {
  if (function == nullptr) return _vx_error_null_argument();
  SystemLock lock(&list_mutex);
  ExitRecord** link = &first_record;
  while (*link != nullptr && (*link)->function != function) link = &(*link)->next;
  if (*link == nullptr) return _vx_error_fail(ENOENT);
  (void)take(link);
  return 0;
}

void vx_atexit_enable() { vx_atomic_exchange_compare(kept().enabled, 1, 0); }

void vx_atexit_disable() { vx_atomic_exchange_compare(kept().enabled, 0, 1); }

vx_mutex* _vx_progname_mutex() { return kept().progname_mutex; }

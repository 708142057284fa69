#include "liblocal/base/vx_atexit.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "liblocal/base/vx_atomic.h"
#include "liblocal/base/vx_error.h"
#include "liblocal/base/vx_list.h"
#include "liblocal/base/vx_mutex.h"
#include "liblocal/base/vx_once.h"

namespace {

using ExitFunction = void (*)();

// Made once by set_up and kept to the end of the process.
vx_once_control set_up_once;
vx_list* functions = nullptr;
vx_atomic* enabled = nullptr;  // 1: the functions run at process exit
vx_mutex* progname_mutex = nullptr;

void run_functions() {
  if (vx_atomic_exchange_add(enabled, 0) != 1) return;
  while (void* function = vx_list_take_first(functions)) {
    reinterpret_cast<ExitFunction>(function)();
  }
}

void end_process_without(const char* what) {
  char reason[256];
  vx_error_get_message(reason, sizeof reason);
  fprintf(stderr, "Failed to create %s: %s\n", what, reason);
  raise(SIGTERM);
}

void set_up() {
  // Registers its clean-up first, so that it runs last: the functions may still record errors.
  _vx_orvane_get();
  functions = vx_list_new();
  if (functions != nullptr) enabled = vx_atomic_new(1);
  if (enabled == nullptr) end_process_without("internal atexit list");
  progname_mutex = vx_mutex_new();
  if (progname_mutex == nullptr) end_process_without("progname mutex");
  atexit(run_functions);
}

vx_list* list() {
  vx_once(&set_up_once, set_up);
  return functions;
}

}  // namespace

int32_t vx_atexit(void (*function)()) {
  return vx_list_add_first(list(), reinterpret_cast<void*>(function));
}

int32_t vx_unatexit(void (*function)()) {
  return vx_list_remove(list(), reinterpret_cast<void*>(function));
}

void vx_atexit_enable() {
  vx_once(&set_up_once, set_up);
  vx_atomic_exchange_compare(enabled, 1, 0);
}

void vx_atexit_disable() {
  vx_once(&set_up_once, set_up);
  vx_atomic_exchange_compare(enabled, 0, 1);
}

vx_mutex* _vx_progname_mutex() {
  vx_once(&set_up_once, set_up);
  return progname_mutex;
}

#include "liblocal/threads/vx_thread.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>

#include "liblocal/threads/vx_object.h"
#include "liblocal/threads/vx_once.h"
#include "liblocal/threads/vx_orvane.h"

struct vx_thread {
  vx_object_header header;
  pthread_t system;  // meaningful from kRunning on
  uint64_t id;
  int32_t state;
  bool joinable;  // started here and not joined
  vx_thread_function function;
  void* argument;
};

namespace {

enum State : int32_t { kNew = 1, kRunning = 2 };

vx_once_control layer_once;
pthread_mutex_t layer_mutex;  // a thread's record is filled under it before the thread runs on
std::atomic<int> layer_initialised = 0;

void create_layer() {
  pthread_mutex_init(&layer_mutex, nullptr);
  _vx_orvane_set_identity_release([](vx_thread* identity) { vx_unreference(identity); });
}

int32_t destroy(void* object) { return vx_thread_destroy(static_cast<vx_thread*>(object)); }

void finish(vx_thread* thread) {
  if (thread->joinable) pthread_detach(thread->system);
}

vx_thread* new_record() {
  _vx_thr_libinit();
  auto thread = _vx_object_allocate<vx_thread>();
  if (thread == nullptr || !_vx_object_register(thread.get(), destroy)) return nullptr;
  thread->id = static_cast<uint64_t>(getpid()) << 32 | static_cast<uint32_t>(thread->header.slot);
  return thread.release();
}

void* run(void* started) {
  auto* thread = static_cast<vx_thread*>(started);
  pthread_mutex_lock(&layer_mutex);
  pthread_mutex_unlock(&layer_mutex);
  _vx_orvane_get()->identity = thread;  // with the reference that the starter took for it
  return thread->function(thread->argument);
}

}  // namespace

vx_thread* vx_thread_new(vx_thread_function function, void* argument) {
  if (function == nullptr) {
    _vx_error_null_argument();
    return nullptr;
  }
  vx_thread* thread = new_record();
  if (thread == nullptr) return nullptr;
  thread->state = kNew;
  thread->function = function;
  thread->argument = argument;
  return thread;
}

int32_t vx_thread_start(vx_thread* thread) {
  if (thread == nullptr) return _vx_error_null_argument();
  pthread_mutex_lock(&layer_mutex);
  int error = thread->state == kNew ? 0 : EINVAL;
  if (error == 0) {
    vx_reference(thread);
    error = pthread_create(&thread->system, nullptr, run, thread);
    if (error == 0) {
      thread->state = kRunning;
      thread->joinable = true;
    } else {
      vx_unreference(thread);
    }
  }
  pthread_mutex_unlock(&layer_mutex);
  return error == 0 ? 0 : _vx_error_fail(error);
}

int32_t vx_thread_join(vx_thread* thread, void** result) {
  if (thread == nullptr) return _vx_error_null_argument();
  if (thread->state == kRunning && pthread_equal(thread->system, pthread_self()) != 0) {
    return _vx_error_fail(EDEADLK);
  }
  if (!thread->joinable) return _vx_error_fail(EINVAL);
  int error = pthread_join(thread->system, result);
  if (error != 0) return _vx_error_fail(error);
  thread->joinable = false;
  return 0;
}

int32_t vx_thread_destroy(vx_thread* thread) { return _vx_object_destroy(thread, finish); }

vx_thread* vx_thread_self() {
  vx_orvane* own = _vx_orvane_get();
  if (own->identity == nullptr) {
    vx_thread* thread = new_record();
    if (thread == nullptr) return nullptr;
    thread->system = pthread_self();
    thread->state = kRunning;
    own->identity = thread;
  }
  return own->identity;
}

uint64_t vx_thread_id(const vx_thread* thread) {
  if (thread == nullptr) {
    _vx_error_null_argument();
    return 0;
  }
  return thread->id;
}

int32_t vx_thread_equal(const vx_thread* a, const vx_thread* b) {
  if (a == nullptr || b == nullptr) {
    _vx_error_null_argument();
    return 0;
  }
  return pthread_equal(a->system, b->system) != 0 ? 1 : 0;
}

int32_t vx_thread_sleep(uint32_t milliseconds) {
  timespec pause{static_cast<time_t>(milliseconds / 1000),
                 static_cast<long>(milliseconds % 1000) * 1000000};
  return nanosleep(&pause, nullptr) == 0 ? 0 : _vx_error_fail(errno);
}

int32_t vx_thread_yield() { return sched_yield() == 0 ? 0 : _vx_error_fail(errno); }

void _vx_thr_libinit() { vx_once(&layer_once, create_layer); }

int32_t vx_thr_init() {
  layer_initialised.store(1, std::memory_order_relaxed);
  return 1;
}

int32_t vx_thr_initd() { return layer_initialised.load(std::memory_order_relaxed); }

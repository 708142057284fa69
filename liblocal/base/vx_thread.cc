#include "liblocal/base/vx_thread.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "liblocal/base/vx_object.h"
#include "liblocal/base/vx_orvane.h"
#include "liblocal/base/xmalloc.h"

struct vx_thread {
  vx_object_header header;
  pthread_t system;
  uint64_t id;
  int32_t state;
};

namespace {

constexpr int32_t kRunning = 2;

std::atomic<int> layer_initialised = 0;

int32_t destroy(void* object) { return vx_thread_destroy(static_cast<vx_thread*>(object)); }

}  // namespace

int32_t vx_thread_join(const vx_thread* thread, void** /*result*/) {
  if (thread == nullptr) return _vx_error_null_argument();
  return _vx_error_fail(pthread_equal(thread->system, pthread_self()) != 0 ? EDEADLK : EINVAL);
}

int32_t vx_thread_destroy(vx_thread* thread) {
  return _vx_object_destroy<vx_thread>(thread, [](vx_thread*) {});
}

vx_thread* vx_thread_self() {
  vx_orvane* own = _vx_orvane_get();
  if (own->identity != nullptr) return own->identity;
  auto thread = _vx_object_allocate<vx_thread>();
  if (thread == nullptr || !_vx_object_register(thread.get(), destroy)) return nullptr;
  thread->system = pthread_self();
  thread->id = static_cast<uint64_t>(getpid()) << 32 | static_cast<uint32_t>(thread->header.slot);
  thread->state = kRunning;
  return own->identity = thread.release();
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
  return _vx_pause_ms(milliseconds) == 0 ? 0 : _vx_error_fail(errno);
}

int32_t vx_thread_yield() { return sched_yield() == 0 ? 0 : _vx_error_fail(errno); }

void _vx_thr_libinit() {}

int32_t vx_thr_init() {
  layer_initialised.store(1, std::memory_order_relaxed);
  return 1;
}

int32_t vx_thr_initd() { return layer_initialised.load(std::memory_order_relaxed); }

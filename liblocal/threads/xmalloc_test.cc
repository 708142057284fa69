// What waits instead of failing: the allocators, and all that a block or a record needs.
#include "liblocal/threads/xmalloc.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <thread>

#include "liblocal/threads/liblvarp.h"
#include "liblocal/threads/vx_error.h"
#include "liblocal/threads/vx_mutex.h"
#include "liblocal/threads/vx_thread.h"
#include "tests/failing_malloc.h"

namespace {

// The thread sanitizer makes a key of its own before it can bear instrumented code.
#ifdef __clang__
#define PLAIN [[clang::disable_sanitizer_instrumentation]]
#else
#define PLAIN
#endif

int keys_refused, values_refused;
std::string* pauses = nullptr;  // where they are written instead of made, as "seconds.nanoseconds "

PLAIN bool is_refused(int& left) { return left > 0 && left-- > 0; }

}  // namespace

// The names that the linker's --wrap gives to what is called and to the real one.
extern "C" {
int __real_pthread_key_create(pthread_key_t* key, void (*destructor)(void*));
int __real_pthread_setspecific(pthread_key_t key, const void* value);
int __real_nanosleep(const timespec* pause, timespec* left);

PLAIN int __wrap_pthread_key_create(pthread_key_t* key, void (*destructor)(void*)) {
  return is_refused(keys_refused) ? EAGAIN : __real_pthread_key_create(key, destructor);
}
PLAIN int __wrap_pthread_setspecific(pthread_key_t key, const void* value) {
  return is_refused(values_refused) ? ENOMEM : __real_pthread_setspecific(key, value);
}
int __wrap_nanosleep(const timespec* pause, timespec* left) {
  if (pauses == nullptr) return __real_nanosleep(pause, left);
  ((*pauses += std::to_string(pause->tv_sec) + ".") += std::to_string(pause->tv_nsec)) += " ";
  return 0;
}
}

namespace {

// The pauses of `work`, while the next `refusals` allocations but the first `granted` fail.
std::string pauses_of(int granted, int refusals, auto work) {
  std::string made;
  made.reserve(100);
  pauses = &made;
  {
    FailingMalloc shortage(granted, refusals);
    work();
  }
  pauses = nullptr;
  return made;
}

TEST(Waiting, ForMemory) {
  EXPECT_EQ(pauses_of(0, 3, [] { free(xmalloc(10)); }), "5.0 5.0 5.0 ");
  EXPECT_EQ(pauses_of(0, 1, [] { free(xcalloc(2, 10)); }), "5.0 ");
  EXPECT_EQ(pauses_of(0, 1, [] { free(xstrdup("text")); }), "5.0 ");
  EXPECT_EQ(pauses_of(0, 2, [] { liblocal_t_clean(liblocal_t_init()); }), "2.0 2.0 ");
  EXPECT_EQ(pauses_of(0, 0, [] { EXPECT_EQ(vx_thread_sleep(1234), 0); }), "1.234000000 ");
  EXPECT_EQ(pauses_of(0, 0, [] { _vx_pause_ms(1234); }), "1.234000000 ");
  EXPECT_EQ(xstrdup(nullptr), nullptr);
  std::thread([] {  // for the place of its block
    vx_error_set_last(0, 1);
    values_refused = 2;
    EXPECT_EQ(pauses_of(0, 0, get_liblocal_t_varp), "2.0 2.0 ");
  })
      .join();
}

// Of a process that has used nothing yet, and goes on when it is asked to end.
void first_error() {
  static std::atomic<int> asked;
  std::signal(SIGTERM, [](int) { ++asked; });
  keys_refused = 1;
  values_refused = 2;
  std::string seen = pauses_of(0, 3, [] { vx_error_set_last(EPERM, 1); });
  seen += std::to_string(vx_error_get_last()) + " " + std::to_string(asked);
  FailingMalloc after_object(1, 2);
  pauses = &(seen += " ");
  vx_mutex_destroy(vx_mutex_new());  // needs the first slots of the reference table
  fputs(seen.c_str(), stderr);
  _exit(3);
}

TEST(Waiting, ForTheRecordOfErrorsAndTheFirstSlots) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(first_error(), testing::ExitedWithCode(3), "^2.0 2.0 2.0 2.0 2.0 2.0 69 6 5.0 5.0 $");
  auto default_action = [] {
    keys_refused = 1;
    vx_error_set_last(EPERM, 1);
  };
  EXPECT_EXIT(default_action(), testing::KilledBySignal(SIGTERM), "^$");
}

TEST(Waiting, EndsWithoutAKey) {
  vx_error_set_last(0, 1);
  keys_refused = 2;
  EXPECT_EQ(vx_threadstorage_new(nullptr), nullptr);
  EXPECT_EQ(vx_error_get_last(), 8);
  EXPECT_EXIT((void)_varp_new_key("kiv", nullptr), testing::ExitedWithCode(1),
              "^create_thread_key_kiv: unable to create thread-local storage key\\.$");
  keys_refused = 0;
}

}  // namespace

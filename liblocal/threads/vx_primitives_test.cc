// The handles of the primitives: one-time control, mutexes, atomic counters, thread
// storage, threads and the references to them all.
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "liblocal/threads/vx_atomic.h"
#include "liblocal/threads/vx_error.h"
#include "liblocal/threads/vx_mutex.h"
#include "liblocal/threads/vx_once.h"
#include "liblocal/threads/vx_reference.h"
#include "liblocal/threads/vx_thread.h"
#include "liblocal/threads/vx_threadstorage.h"
#include "tests/failing_malloc.h"
#include "tests/threads.h"

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define UNDER_THREAD_SANITIZER
#endif
#endif

namespace {

TEST(VxPrimitives, WithoutHandle) {
  const std::pair<const char*, uint64_t> cases[] = {
      {"once", vx_once(nullptr, [] {})},
      {"lock", vx_mutex_lock(nullptr)},
      {"destroy a mutex", vx_mutex_destroy(nullptr)},
      {"add", vx_atomic_exchange_add(nullptr, 1)},
      {"increment", vx_atomic_increment(nullptr)},
      {"decrement", vx_atomic_decrement(nullptr)},
      {"exchange", vx_atomic_exchange(nullptr, 1)},
      {"compare", vx_atomic_exchange_compare(nullptr, 1, 1)},
      {"set", vx_threadstorage_set(nullptr, nullptr)},
      {"join", vx_thread_join(nullptr, nullptr)}};
  for (const auto& [operation, result] : cases) EXPECT_EQ(result, 2U) << operation;
  vx_once_control control{};
  const vx_thread* self = vx_thread_self();
  auto records = [](uint64_t result) {
    const bool recorded = result == 0 && vx_error_get_last() == 31;
    vx_error_set_last(0, 1);
    return recorded;
  };
  EXPECT_TRUE(records(vx_once(&control, nullptr) - 2));
  EXPECT_TRUE(records(reinterpret_cast<uint64_t>(vx_threadstorage_get(nullptr))));
  EXPECT_TRUE(records(vx_thread_id(nullptr)));
  EXPECT_TRUE(records(vx_thread_equal(nullptr, self)));
  EXPECT_TRUE(records(vx_thread_equal(self, nullptr)));
}

TEST(VxPrimitives, WithoutMemory) {
  std::thread([] {
    vx_error_set_last(0, 1);
    FailingMalloc nothing(0);
    EXPECT_EQ(vx_mutex_new(), nullptr);
    EXPECT_EQ(vx_error_get_last(), 53);
    EXPECT_EQ(vx_atomic_new(1), nullptr);
    EXPECT_EQ(vx_threadstorage_new(nullptr), nullptr);
    EXPECT_EQ(vx_thread_self(), nullptr);
  }).join();
}

int runs;  // plain: vx_once itself must order the write before the reads
TEST(VxOnce, RunsOnceHoweverManyRace) {
  vx_once_control controls[50]{};
  in_threads(16, [&controls](int) {
    for (auto& control : controls) EXPECT_EQ(vx_once(&control, [] { ++runs; }), 0);
    EXPECT_EQ(runs, 50);
  });
}

TEST(VxMutex, ChecksItsOwner) {
  std::atomic<vx_mutex*> slot;
  in_threads(8, [&slot](int) { EXPECT_EQ(vx_mutex_made_once(&slot), slot); });
  vx_mutex* mutex = slot;
  EXPECT_EQ(vx_mutex_trylock(mutex), 0);
  EXPECT_EQ(vx_mutex_lock(mutex), 18);
  { VxMutexLock again(mutex); }  // leaves it locked
  in_threads(1, [mutex](int) {
    EXPECT_EQ(vx_mutex_trylock(mutex), 12);
#ifndef UNDER_THREAD_SANITIZER  // which reports the misuse itself
    EXPECT_EQ(vx_mutex_unlock(mutex), 69);
#endif
  });
  EXPECT_EQ(vx_mutex_unlock(mutex), 0);
  EXPECT_EQ(vx_mutex_lock(mutex), 0);
  EXPECT_EQ(vx_mutex_destroy(mutex), 0);  // locked as it is
}

TEST(VxAtomic, EachOperationReturnsWhatItStates) {
  vx_atomic* atomic = vx_atomic_new(0xffffffff);
  EXPECT_EQ(vx_atomic_increment(atomic), 0u);
  EXPECT_EQ(vx_atomic_decrement(atomic), 0xffffffffu);
  EXPECT_EQ(vx_atomic_exchange(atomic, 5), 0xffffffffu);
  EXPECT_EQ(vx_atomic_exchange_add(atomic, 10), 5u);
  EXPECT_EQ(vx_atomic_exchange_compare(atomic, 1, 14), 15u);  // no match: unchanged
  EXPECT_EQ(vx_atomic_exchange_compare(atomic, 1, 15), 15u);
  in_threads(8, [atomic](int i) {
    for (int n = 0; n < 500; ++n) i % 2 ? vx_atomic_increment(atomic) : vx_atomic_decrement(atomic);
  });
  EXPECT_EQ(vx_atomic_exchange(atomic, 0), 1u);
  EXPECT_EQ(vx_atomic_destroy(atomic), 0);
}

TEST(VxThreadstorage, EachThreadHasItsValueAndDestructor) {
  static std::atomic<int> destroyed;
  vx_threadstorage* storage = vx_threadstorage_new([](void*) { ++destroyed; });
  int own;
  EXPECT_EQ(vx_threadstorage_set(storage, &own), 0);
  in_threads(8, [storage](int i) {
    EXPECT_EQ(vx_threadstorage_get(storage), nullptr);
    if (i > 0) vx_threadstorage_set(storage, &i);
    EXPECT_EQ(vx_threadstorage_get(storage), i > 0 ? &i : nullptr);
  });
  EXPECT_EQ(destroyed, 7);  // not for the thread without a value
  EXPECT_EQ(vx_threadstorage_get(storage), &own);
  EXPECT_EQ(vx_threadstorage_destroy(storage), 0);
  EXPECT_EQ(destroyed, 7);
}

TEST(VxThread, IdentitiesDifferAndGoWithTheirThreads) {
  vx_thread* own = vx_thread_self();
  EXPECT_EQ(vx_thread_self(), own);
  EXPECT_EQ(vx_thread_equal(own, own), 1);
  EXPECT_EQ(vx_thread_id(own),
            static_cast<uint64_t>(getpid()) << 32 |
                static_cast<uint32_t>(reinterpret_cast<vx_object_header*>(own)->slot));
  EXPECT_EQ(vx_thread_join(own, nullptr), 18);
  for (int round = 0; round < 20; ++round) {
    in_threads(8, [own](int) {
      vx_thread* self = vx_thread_self();
      EXPECT_EQ(vx_thread_equal(self, own), 0);
      EXPECT_EQ(vx_thread_join(own, nullptr), 31);
      EXPECT_NE(vx_thread_id(self), vx_thread_id(own));
      EXPECT_LT(static_cast<uint32_t>(vx_thread_id(self)), 64u);  // ended threads left their slots
    });
  }
}

TEST(VxThread, SleepsUntilASignal) {
  std::signal(SIGALRM, [](int) {});
  itimerval soon = {{}, {0, 20000}};
  setitimer(ITIMER_REAL, &soon, nullptr);
  EXPECT_EQ(vx_thread_sleep(60000), 30);
  EXPECT_EQ(vx_thread_yield(), 0);
  EXPECT_EQ(vx_thr_initd(), 0);
  EXPECT_EQ(vx_thr_init(), 1);
  EXPECT_EQ(vx_thr_initd(), 1);
}

struct Probe {
  vx_object_header header;
  int destroyed = 0;
};

int32_t destroy_probe(void* object) {
  if (_vx_unreference_from_destructor(object) != 0) return -7;
  return 100 + ++static_cast<Probe*>(object)->destroyed;
}

bool take(Probe& probe) {
  probe.header = {kVxObjectValid, _vx_reference_from_constructor(&probe, destroy_probe)};
  return probe.header.slot >= 0;
}

TEST(VxReference, TheLastOneDestroys) {
  Probe probe;
  EXPECT_TRUE(take(probe));
  EXPECT_EQ(vx_reference(&probe), 0);
  EXPECT_EQ(vx_reference(&probe), 0);
  EXPECT_EQ(_vx_unreference_from_destructor(&probe), 3) << "the count before";
  EXPECT_EQ(vx_unreference(&probe), 0);
  probe.header.flags = 0;
  EXPECT_EQ(vx_reference(nullptr), 31);
  EXPECT_EQ(vx_unreference(&probe), 31);
  probe.header.flags = kVxObjectValid;
  for (int32_t slot : {probe.header.slot, -1, 1 << 30}) {
    Probe stranger;
    stranger.header = {kVxObjectValid, slot};
    EXPECT_EQ(vx_reference(&stranger), 49);
    EXPECT_EQ(vx_unreference(&stranger), 49);
    EXPECT_EQ(_vx_unreference_from_destructor(&stranger), -1);
    EXPECT_EQ(vx_error_get_last(), 49);
  }
  EXPECT_EQ(vx_unreference(&probe), 101) << "the destroy function's result";
  EXPECT_EQ(vx_mutex_destroy(reinterpret_cast<vx_mutex*>(&probe)), 49);
}

TEST(VxReference, TheLowestFreeSlotIsTaken) {
  std::vector<Probe> probes(5000);
  size_t taken = 0;
  auto fill_the_table = [&](int granted) {
    FailingMalloc shortage(granted);
    const size_t before = taken;
    while (take(probes[taken])) ++taken;
    EXPECT_EQ(vx_error_get_last(), 53);
    return taken - before;
  };
  vx_error_set_last(0, 1);
  EXPECT_TRUE(take(probes[taken++]));  // what the table needs once is there now
  fill_the_table(0);
  EXPECT_EQ(fill_the_table(1), 16U) << "it grows by so many";
  const size_t last = taken - 1;
  for (size_t left : {last - 7, last - 2, last - 4}) EXPECT_EQ(vx_unreference(&probes[left]), 101);
  for (size_t free : {last - 7, last - 4, last - 2}) {
    EXPECT_TRUE(take(probes[taken]));
    EXPECT_EQ(probes[taken++].header.slot, probes[free].header.slot);
    probes[free].header.flags = 0;
  }
  for (Probe& probe : probes) vx_unreference(&probe);
}

}  // namespace

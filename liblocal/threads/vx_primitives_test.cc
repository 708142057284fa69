// The handles of the primitives: one-time control, mutexes, atomic counters, thread
// storage and the references to them.
#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "liblocal/threads/vx_atomic.h"
#include "liblocal/threads/vx_error.h"
#include "liblocal/threads/vx_mutex.h"
#include "liblocal/threads/vx_once.h"
#include "liblocal/threads/vx_reference.h"
#include "liblocal/threads/vx_threadstorage.h"
#include "tests/failing_malloc.h"
#include "tests/threads.h"

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define UNDER_THREAD_SANITIZER
#endif
#endif

namespace {

TEST(VxPrimitives, WithoutMemoryOrHandle) {
  vx_error_set_last(0, 1);
  EXPECT_EQ(vx_mutex_lock(nullptr), 2);
  EXPECT_EQ(vx_error_get_last(), 31);
  FailingMalloc nothing(0);
  EXPECT_EQ(vx_mutex_new(), nullptr);
  EXPECT_EQ(vx_error_get_last(), 53);
  EXPECT_EQ(vx_atomic_new(1), nullptr);
  EXPECT_EQ(vx_threadstorage_new(nullptr), nullptr);
}

int runs;  // plain: vx_once itself must order the write before the reads
TEST(VxOnce, RunsOnceHoweverManyRace) {
  vx_once_control controls[50]{};
  runs = 0;
  in_threads(16, [&controls](int) {
    for (auto& control : controls) EXPECT_EQ(vx_once(&control, [] { ++runs; }), 0);
    EXPECT_EQ(runs, 50);
  });
}

TEST(VxMutex, ChecksItsOwner) {
  vx_mutex* mutex = vx_mutex_new();
  EXPECT_EQ(vx_mutex_trylock(mutex), 0);
  EXPECT_EQ(vx_mutex_lock(mutex), 18);
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
  EXPECT_EQ(vx_atomic_exchange_add(atomic, 0), 1u);
  in_threads(8, [atomic](int i) {
    for (int n = 0; n < 500; ++n) i % 2 ? vx_atomic_increment(atomic) : vx_atomic_decrement(atomic);
  });
  EXPECT_EQ(vx_atomic_exchange(atomic, 0), 1u);
  EXPECT_EQ(vx_atomic_destroy(atomic), 0);
}

TEST(VxThreadstorage, EachThreadHasItsValueAndDestructor) {
  static std::atomic<int> destroyed;
  destroyed = 0;
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

TEST(VxReference, TheLastReferenceDestroys) {
  vx_mutex* mutex = vx_mutex_new();
  EXPECT_EQ(vx_reference(mutex), 0);
  EXPECT_EQ(vx_mutex_destroy(mutex), 0);
  EXPECT_EQ(vx_mutex_lock(mutex), 0);  // one reference left: usable
  EXPECT_EQ(vx_mutex_unlock(mutex), 0);
  EXPECT_EQ(vx_unreference(mutex), 0);
}

struct Probe {
  vx_object_header header;
  int destroyed = 0;
};

int32_t destroy_probe(void* object) {
  if (_vx_unreference_from_destructor(object) != 0) return -7;
  return 100 + ++static_cast<Probe*>(object)->destroyed;
}

TEST(VxReference, FaultyObjectsAreReported) {
  Probe probe;
  probe.header = {0, _vx_reference_from_constructor(&probe, destroy_probe)};
  EXPECT_EQ(vx_reference(nullptr), 31);
  EXPECT_EQ(vx_unreference(&probe), 31);
  probe.header.flags = kVxObjectValid;
  for (int32_t slot : {probe.header.slot, -1, 1 << 30}) {
    Probe stranger;
    stranger.header = {kVxObjectValid, slot};
    EXPECT_EQ(vx_reference(&stranger), 49);
    EXPECT_EQ(vx_unreference(&stranger), 49);
    EXPECT_EQ(_vx_unreference_from_destructor(&stranger), -1);
  }
  EXPECT_EQ(vx_unreference(&probe), 101) << "the destroy function's result";
}

TEST(VxReference, ReportsNoRoom) {
  std::vector<Probe> probes(5000);
  auto take = [](Probe& probe) {
    probe.header = {kVxObjectValid, _vx_reference_from_constructor(&probe, destroy_probe)};
    return probe.header.slot >= 0;
  };
  vx_error_set_last(0, 1);
  size_t taken = 0;
  EXPECT_TRUE(take(probes[taken++]));  // what the table needs once is there now
  {
    FailingMalloc nothing(0);
    while (take(probes[taken])) ++taken;
  }
  EXPECT_EQ(vx_error_get_last(), 53);
  while (taken > 0) EXPECT_EQ(vx_unreference(&probes[--taken]), 101);
}

TEST(VxReference, TheTableGrowsWhileItIsUsed) {
  vx_atomic* shared = vx_atomic_new(0);
  in_threads(8, [shared](int) {
    std::vector<vx_mutex*> mutexes;
    for (int i = 0; i < 100; ++i) {
      mutexes.push_back(vx_mutex_new());
      EXPECT_EQ(vx_reference(shared), 0);
      vx_atomic_increment(shared);
      EXPECT_EQ(vx_unreference(shared), 0);
    }
    for (vx_mutex* mutex : mutexes) EXPECT_EQ(vx_mutex_destroy(mutex), 0);
  });
  EXPECT_EQ(vx_atomic_exchange(shared, 0), 800u);
  vx_atomic_destroy(shared);
}

}  // namespace

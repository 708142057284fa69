// The primitives: errors, one-time control, mutexes, atomic counters, thread storage,
// threads, the references to them all, and the exit list.
#include <gmock/gmock.h>
#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "liblocal/threads/vx_atexit.h"
#include "liblocal/threads/vx_atomic.h"
#include "liblocal/threads/vx_error.h"
#include "liblocal/threads/vx_list.h"
#include "liblocal/threads/vx_mutex.h"
#include "liblocal/threads/vx_once.h"
#include "liblocal/threads/vx_reference.h"
#include "liblocal/threads/vx_select.h"
#include "liblocal/threads/vx_thread.h"
#include "liblocal/threads/vx_threadstorage.h"
#include "tests/failing_malloc.h"
#include "tests/threads.h"

#ifndef __has_feature
#define __has_feature(name) false
#endif

namespace {

// What calls return, one after the other.
using Results = std::vector<int64_t>;

TEST(VxPrimitives, WithoutHandleOrMemory) {
  vx_once_control control{};
  static vx_list* const list = vx_list_new();  // for the process, as lists are
  EXPECT_THAT((Results{vx_once(nullptr, [] {}), vx_once(&control, nullptr), vx_mutex_lock(nullptr),
                       vx_mutex_destroy(nullptr), vx_atomic_exchange_add(nullptr, 1),
                       vx_atomic_increment(nullptr), vx_atomic_decrement(nullptr),
                       vx_atomic_exchange(nullptr, 1), vx_atomic_exchange_compare(nullptr, 1, 1),
                       vx_threadstorage_set(nullptr, nullptr), vx_thread_join(nullptr, nullptr),
                       vx_list_add_first(nullptr, list), vx_list_add_first(list, nullptr),
                       vx_list_remove(nullptr, list), vx_list_remove(list, nullptr)}),
              testing::Each(2));
  EXPECT_EQ(vx_error_get_last(), 31);
  EXPECT_TRUE(vx_list_take_first(nullptr) == nullptr && vx_threadstorage_get(nullptr) == nullptr);
  vx_thread* own = vx_thread_self();
  EXPECT_EQ(vx_thread_id(nullptr), 0U);
  EXPECT_EQ(vx_thread_equal(nullptr, own) + vx_thread_equal(own, nullptr), 0);
  in_threads(1, [](int) {
    vx_error_set_last(0, 1);
    FailingMalloc nothing(0);
    EXPECT_TRUE(vx_mutex_new() == nullptr && vx_error_get_last() == 53);
    EXPECT_TRUE(vx_atomic_new(1) == nullptr && vx_threadstorage_new(nullptr) == nullptr);
    EXPECT_EQ(vx_thread_self(), nullptr);
  });
}

TEST(VxError, EveryCodeStandsForItsSystemErrorBothWays) {
  std::string listed;  // on Linux ENOTSUP is EOPNOTSUPP
  for (int code = -1; code < 86; ++code) {
    const int error = vx_error_to_errno(code);
    (listed += error != 0 ? strerrorname_np(error) : "-") += " ";
    EXPECT_EQ(vx_error_from_errno(error), error == 0 ? 0 : code == 9 ? 29 : code);
  }
  EXPECT_EQ(
      listed,
      "- - - - E2BIG EACCES EADDRINUSE EADDRNOTAVAIL EAFNOSUPPORT EAGAIN EINPROGRESS EBADF EBADMSG "
      "EBUSY - ECHILD ECONNABORTED ECONNREFUSED ECONNRESET EDEADLK EDESTADDRREQ EDOM EDQUOT EEXIST "
      "EFAULT EFBIG - EHOSTUNREACH EIDRM EILSEQ EINPROGRESS EINTR EINVAL EIO EISCONN EISDIR ELOOP "
      "EMFILE EMLINK EMSGSIZE EMULTIHOP ENAMETOOLONG ENETDOWN ENETRESET ENETUNREACH ENFILE - "
      "ENOBUFS ENODATA ENODEV ENOENT ENOEXEC ENOLCK ENOLINK ENOMEM ENOMSG ENOPROTOOPT ENOSPC ENOSR "
      "ENOSTR ENOSYS ENOTCONN ENOTDIR ENOTEMPTY ENOTSOCK EOPNOTSUPP ENOTTY ENXIO - EOVERFLOW EPERM "
      "EPIPE EPROTO EPROTONOSUPPORT EPROTOTYPE ERANGE EROFS - ESPIPE ESRCH ESTALE ETIME ETIMEDOUT "
      "ETXTBSY - EXDEV - ");
  EXPECT_EQ(vx_error_from_errno(EALREADY), 29);
  int unlisted = 0;
  for (int error = -5; error < 200; ++error) unlisted += vx_error_from_errno(error) == 1;
  EXPECT_EQ(unlisted, 204 - 76) << "75 names and EALREADY are known";
}

std::string last_message() {
  char text[64];
  vx_error_get_message(text, sizeof text);
  return text;
}

TEST(VxError, TheLastErrorKeepsItsKind) {
  const std::pair<int, int> errors[] = {
      {ENOENT, 1},    {0, 1},           {5, 0},       {9999, 1}, {HOST_NOT_FOUND, 2},
      {TRY_AGAIN, 2}, {NO_RECOVERY, 2}, {NO_DATA, 2}, {0, 2},    {9, 2},
      {5, 3},         {10004, 4},       {5, 5}};
  std::string told;
  for (auto [value, kind] : errors) {
    EXPECT_EQ(vx_error_set_last(value, kind)->value, value);
    told += std::to_string(vx_error_get_last()) + " " + last_message() + ";";
  }
  EXPECT_EQ(told,
            "49 No such file or directory;0 Success;1 Input/output error;1 Unknown error 9999;"
            "25 Unknown host;8 Host name lookup failure;45 Unknown server error;"
            "47 No address associated with name;0 Resolver Error 0 (no error);"
            "1 Unknown resolver error;2 Unknown error;2 Unknown error;1 Unknown error;");
}

TEST(VxError, EachThreadHasItsOwnAndMessagesAreCut) {
  vx_error_set_last(EPERM, 1);
  std::string text = "xxxxxxxx";
  vx_error_get_message(text.data(), 0);
  vx_error_get_message(nullptr, 1);
  vx_error_get_message(text.data() + 1, 4);
  EXPECT_EQ(text, std::string("xOpe\0xxx", 8));
  in_threads(1, [](int) {
    EXPECT_EQ(vx_error_get_last(), 0);
    {
      FailingMalloc nothing(0);
      EXPECT_EQ(vx_error_set_last(EAGAIN, 1), nullptr);
      EXPECT_EQ(last_message(), "Unknown error");
    }
    EXPECT_EQ(last_message(), "Success");
  });
  EXPECT_EQ(vx_error_get_last(), 69);
}

TEST(VxSelect, SetsHoldWhatTheyCanName) {
  static vx_fd_set sets[3];  // what lies before and behind the middle one stays empty
  for (int fd : {-1, 0, 63, 64, 65535, 65536}) {
    VX_FD_SET(fd, &sets[1]);
    EXPECT_EQ(VX_FD_ISSET(fd, &sets[1]), fd >= 0 && fd < 65536) << fd;
  }
  VX_FD_ZERO_UP_TO(64, &sets[1]);
  for (int fd : {0, 63, 64, 65535}) EXPECT_EQ(VX_FD_ISSET(fd, &sets[1]), fd > 64) << fd;
  VX_FD_ZERO(&sets[1]);
  const vx_fd_set empty = {};
  for (const vx_fd_set& set : sets) EXPECT_EQ(memcmp(&set, &empty, sizeof empty), 0);
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
  EXPECT_EQ((Results{vx_mutex_trylock(mutex), vx_mutex_lock(mutex)}), (Results{0, 18}));
  { VxMutexLock again(mutex); }  // leaves it locked
  in_threads(1, [mutex](int) {
    EXPECT_EQ(vx_mutex_trylock(mutex), 12);
#if !__has_feature(thread_sanitizer)  // which reports the misuse itself
    EXPECT_EQ(vx_mutex_unlock(mutex), 69);
#endif
  });
  EXPECT_EQ(vx_mutex_unlock(mutex), 0);
  EXPECT_EQ(vx_mutex_lock(mutex) + vx_mutex_destroy(mutex), 0);  // locked as it is
}

TEST(VxAtomic, EachOperationReturnsWhatItStates) {
  vx_atomic* atomic = vx_atomic_new(0xffffffff);
  EXPECT_EQ((Results{vx_atomic_increment(atomic), vx_atomic_decrement(atomic),
                     vx_atomic_exchange(atomic, 5), vx_atomic_exchange_add(atomic, 10),
                     vx_atomic_exchange_compare(atomic, 1, 14),  // no match: unchanged
                     vx_atomic_exchange_compare(atomic, 1, 15)}),
            (Results{0, 0xffffffff, 0xffffffff, 5, 15, 15}));
  in_threads(8, [atomic](int i) {
    for (int n = 0; n < 500; ++n) i % 2 ? vx_atomic_increment(atomic) : vx_atomic_decrement(atomic);
  });
  EXPECT_EQ((Results{vx_atomic_exchange(atomic, 0), vx_atomic_destroy(atomic)}), (Results{1, 0}));
}

TEST(VxThreadstorage, EachThreadHasItsValueAndDestructor) {
  static std::atomic<int> destroyed;
  vx_threadstorage* storage = vx_threadstorage_new([](void*) { ++destroyed; });
  vx_threadstorage_set(storage, &destroyed);
  in_threads(8, [storage](int i) {
    EXPECT_EQ(vx_threadstorage_get(storage), nullptr);
    EXPECT_EQ(i > 0 ? vx_threadstorage_set(storage, &i) : 0, 0);
    EXPECT_EQ(vx_threadstorage_get(storage), i > 0 ? &i : nullptr);
  });
  EXPECT_EQ(vx_threadstorage_get(storage), &destroyed);
  EXPECT_EQ(vx_threadstorage_destroy(storage), 0);
  EXPECT_EQ(destroyed, 7) << "not for the thread without a value, nor at the end of the key";
  for (int i = 0; i < 2000; ++i) vx_threadstorage_destroy(vx_threadstorage_new(nullptr));
  EXPECT_NE(vx_threadstorage_new(nullptr), nullptr) << "keys are few, and come back";
}

TEST(VxThread, IdentitiesDifferAndGoWithTheirThreads) {
  vx_thread* own = vx_thread_self();
  EXPECT_EQ(vx_thread_self(), own);
  EXPECT_EQ((Results{vx_thread_equal(own, own), vx_thread_join(own, nullptr)}), (Results{1, 18}));
  const auto slot = static_cast<uint32_t>(reinterpret_cast<vx_object_header*>(own)->slot);
  EXPECT_EQ(vx_thread_id(own), uint64_t(getpid()) << 32 | slot);
  auto live = [own] {
    in_threads(8, [own](int) {
      EXPECT_EQ(vx_thread_equal(vx_thread_self(), own), 0);
      EXPECT_EQ(vx_thread_join(own, nullptr), 31);
    });
  };
  EXPECT_EQ(pieces_left_by(live), 0);
}

TEST(VxThread, SleepsUntilASignal) {
  std::signal(SIGALRM, [](int) {});
  ualarm(20000, 0);
  EXPECT_EQ(vx_thread_sleep(60000), 30);
  EXPECT_EQ((Results{vx_thread_yield(), vx_thr_initd(), vx_thr_init(), vx_thr_initd()}),
            (Results{0, 0, 1, 1}));
}

struct Probe {
  vx_object_header header = {kVxObjectValid, 0};

  int32_t take_slot() {
    return header.slot = _vx_reference_from_constructor(this, [](void* object) {
             return _vx_unreference_from_destructor(object) == 0 ? 101 : -7;
           });
  }
};

TEST(VxReference, TheLastOneDestroys) {
  Probe probe;
  EXPECT_GE(probe.take_slot(), 0);
  EXPECT_EQ((Results{vx_reference(&probe), vx_reference(&probe),
                     _vx_unreference_from_destructor(&probe), vx_unreference(&probe)}),
            (Results{0, 0, 3, 0}));
  probe.header.flags = 0;
  EXPECT_EQ((Results{vx_reference(nullptr), vx_unreference(&probe)}), Results(2, 31));
  probe.header.flags = kVxObjectValid;
  for (int32_t slot : {probe.header.slot, -1, 1 << 30}) {
    Probe stranger = {{kVxObjectValid, slot}};
    EXPECT_EQ((Results{vx_reference(&stranger), vx_unreference(&stranger),
                       _vx_unreference_from_destructor(&stranger), vx_error_get_last()}),
              (Results{49, 49, -1, 49}));
  }
  EXPECT_EQ(vx_unreference(&probe), 101) << "the destroy function's result";
  EXPECT_EQ(vx_mutex_destroy(reinterpret_cast<vx_mutex*>(&probe)), 49);
}

TEST(VxReference, TheLowestFreeSlotIsTaken) {
  vx_error_set_last(0, 1);
  std::vector<Probe> probes(5000);
  size_t taken = 0;
  auto fill_the_table = [&](int granted) {
    FailingMalloc shortage(granted);
    const size_t before = taken;
    while (probes[taken].take_slot() >= 0) ++taken;
    EXPECT_EQ(vx_error_get_last(), 53);
    return taken - before;
  };
  probes[taken++].take_slot();  // what the table needs once is there now
  fill_the_table(0);
  EXPECT_EQ(fill_the_table(1), 16U) << "it grows by so many";
  const size_t last = taken - 1;
  for (size_t left : {last - 7, last - 2, last - 4}) EXPECT_EQ(vx_unreference(&probes[left]), 101);
  for (size_t free : {last - 7, last - 4, last - 2}) {
    EXPECT_EQ(probes[taken++].take_slot(), probes[free].header.slot);
    probes[free].header.flags = 0;
  }
  for (Probe& probe : probes) vx_unreference(&probe);
}

template <char kLetter>
void say() {
  fputc(kLetter, stderr);
}

void fill_list() {
  void (*const functions[])() = {say<'a'>, [] { vx_atexit(say<'n'>); }, say<'x'>, say<'c'>};
  for (auto function : functions) vx_atexit(function);
  EXPECT_EQ(vx_unatexit(say<'x'>), 0);
}

TEST(VxAtexit, RunsNewestFirst) {
  auto exits = testing::ExitedWithCode(3);
  EXPECT_EXIT((fill_list(), exit(3)), exits, "^cna$");
  EXPECT_EXIT((fill_list(), vx_atexit_disable(), exit(3)), exits, "^$");
  EXPECT_EXIT((fill_list(), vx_atexit_disable(), vx_atexit_enable(), exit(3)), exits, "^cna$");
}

TEST(VxAtexit, ReportsWhatItCannotDo) {
  in_threads(4, [](int) { EXPECT_EQ(vx_atexit(say<'y'>), 0); });
  for (int wanted : {0, 0, 0, 0, 49}) EXPECT_EQ(vx_unatexit(say<'y'>), wanted);
  EXPECT_EQ((Results{vx_atexit(nullptr), vx_unatexit(nullptr)}), Results(2, 2));
  FailingMalloc nothing(0);
  EXPECT_EQ(vx_atexit(say<'?'>), 53);
}

// In a process that has used nothing yet.
void first_use(int granted, bool goes_on) {
  if (goes_on) std::signal(SIGTERM, SIG_IGN);
  vx_error_set_last(0, 1);
  FailingMalloc one(granted, 1);
  exit(vx_atexit(say<'?'>));
}

TEST(VxAtexit, NeedsItsListAndTheMutexOfTheName) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string list = "^Failed to create internal atexit list: Cannot allocate memory\n$";
  const std::string mutex = "^Failed to create progname mutex: Cannot allocate memory\n";
  EXPECT_EXIT(first_use(0, false), testing::KilledBySignal(SIGTERM), list);
  EXPECT_EXIT(first_use(0, true), testing::ExitedWithCode(2), list);
  EXPECT_EXIT(first_use(1, true), testing::ExitedWithCode(0), list) << "the switch is off";
  EXPECT_EXIT(first_use(3, true), testing::ExitedWithCode(0), mutex + "\\?$");
}

}  // namespace

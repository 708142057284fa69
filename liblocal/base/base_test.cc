// The base of the runtime: primitives, variable blocks, the end of the process, and calls that
// wait instead of failing.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "liblocal/base/liblvarp.h"
#include "liblocal/base/vx_atomic.h"
#include "liblocal/base/vx_mutex.h"
#include "liblocal/base/vx_object.h"
#include "liblocal/base/vx_select.h"
#include "liblocal/base/vx_thread.h"
#include "liblocal/base/xmalloc.h"
#include "tests/fakes.h"
#include "tests/work.h"

using namespace fakes;

static void say(const char* text) { fputs(text, stderr); }

// The thread sanitizer makes a key of its own before it can bear instrumented code.
#define PLAIN [[clang::disable_sanitizer_instrumentation]]
#pragma GCC diagnostic ignored "-Wattributes"

static int keys_refused;  // so many of the next keys cannot be made

extern "C" int __real_pthread_key_create(pthread_key_t* key, void (*destructor)(void*));
extern "C" PLAIN int __wrap_pthread_key_create(pthread_key_t* key, void (*destructor)(void*)) {
  if (keys_refused > 0 && keys_refused-- > 0) return EAGAIN;
  return __real_pthread_key_create(key, destructor);
}

// A module that says when its blocks are cleaned.
struct probe_t_varp {};
struct probe_p_varp {};
VARP_DECLARE_THREAD_BLOCK(probe)
VARP_DECLARE_PROCESS_BLOCK(probe)
VARP_DEFINE_THREAD_BLOCK(probe)
VARP_DEFINE_PROCESS_BLOCK(probe)

probe_t_varp* probe_t_init() { return varp_new_block<probe_t_varp>(); }
void probe_p_init() { Global_probe_p_varp = varp_new_block<probe_p_varp>(); }
void probe_t_clean(void* block) {
  say("thread block, ");
  free(block);
}
void probe_p_clean(void* block) {
  say("process block, ");
  free(block);
}

namespace {

TEST(VxPrimitives, RefuseNull) {
  EXPECT_EQ(vx_once(nullptr, [] {}), 2);
  EXPECT_EQ(vx_mutex_lock(nullptr), 2);
  EXPECT_EQ(vx_mutex_destroy(nullptr), 2);
  EXPECT_EQ(vx_atomic_increment(nullptr), 2U);
  EXPECT_EQ(vx_threadstorage_set(nullptr, nullptr), 2);
  EXPECT_EQ(vx_threadstorage_get(nullptr), nullptr);
  EXPECT_EQ(vx_thread_id(nullptr), 0U);
  EXPECT_EQ(vx_atexit(nullptr), 2);
  EXPECT_EQ(vx_unatexit(nullptr), 2);
  EXPECT_EQ(vx_error_get_last(), 31);
}

TEST(VxPrimitives, FailWithoutMemory) {
  vx_atexit_enable();  // makes the exit list
  in_threads(1, [](int) {
    vx_error_set_last(0, 1);
    const FailingMalloc none(0);
    EXPECT_EQ(vx_mutex_new(), nullptr);
    EXPECT_EQ(vx_error_get_last(), 53);
    EXPECT_EQ(vx_atomic_new(1), nullptr);
    EXPECT_EQ(vx_threadstorage_new(nullptr), nullptr);
    EXPECT_EQ(vx_thread_self(), nullptr);
    EXPECT_EQ(vx_atexit([] {}), 53);
  });
}

TEST(VxError, CodesFollowTheAlphabetAndComeBack) {
  std::string before;
  for (int code = -1; code < 86; ++code) {
    const int error = vx_error_to_errno(code);
    if (error == 0 || code == 9) continue;
    EXPECT_EQ(vx_error_from_errno(error), code);
    const std::string name = error == ENOTSUP ? "ENOTSUP" : strerrorname_np(error);
    EXPECT_LT(before, name);
    before = name;
  }
  EXPECT_EQ(vx_error_from_errno(E2BIG), 3);
  EXPECT_EQ(vx_error_from_errno(EALREADY), 29);
  EXPECT_EQ(vx_error_from_errno(EXDEV), 84);
  EXPECT_EQ(vx_error_from_errno(9999), 1);
}

std::string last_message() {
  char text[64];
  vx_error_get_message(text, sizeof text);
  return text;
}

TEST(VxError, TheLastErrorKeepsItsKind) {
  const struct {
    int value, kind, code;
    const char* message;
  } rows[] = {{0, 1, 0, "Success"},
              {5, 0, 1, "Input/output error"},
              {HOST_NOT_FOUND, 2, 25, "Unknown host"},
              {TRY_AGAIN, 2, 8, "Host name lookup failure"},
              {NO_RECOVERY, 2, 45, "Unknown server error"},
              {NO_DATA, 2, 47, "No address associated with name"},
              {9, 2, 1, "Unknown resolver error"},
              {5, 3, 2, "Unknown error"},
              {4, 4, 2, "Unknown error"},
              {5, 5, 1, "Unknown error"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.message);
    EXPECT_EQ(vx_error_set_last(row.value, row.kind)->value, row.value);
    EXPECT_EQ(vx_error_get_last(), row.code);
    EXPECT_EQ(last_message(), row.message);
  }
}

TEST(VxError, IsOfEachThreadAndItsMessageIsCut) {
  vx_error_set_last(EPERM, 1);
  char text[] = "xxxxx";
  vx_error_get_message(text, 0);
  EXPECT_STREQ(text, "xxxxx");
  vx_error_get_message(text, 4);
  EXPECT_STREQ(text, "Ope");
  in_threads(1, [](int) {
    EXPECT_EQ(vx_error_get_last(), 0);
    const FailingMalloc none(0);
    EXPECT_EQ(vx_error_set_last(EAGAIN, 1), nullptr);
    EXPECT_EQ(last_message(), "Unknown error");
  });
  EXPECT_EQ(vx_error_get_last(), 69);
}

TEST(VxSelect, SetsHoldDescriptors0To65535) {
  static vx_fd_set sets[3];  // those beside the middle one stay empty
  vx_fd_set& set = sets[1];
  for (int fd : {-1, 0, 64, 65535, 65536}) {
    VX_FD_SET(fd, &set);
    EXPECT_EQ(VX_FD_ISSET(fd, &set), fd >= 0 && fd < 65536) << fd;
  }
  VX_FD_ZERO(&set);
  const vx_fd_set empty = {};
  for (const auto& each : sets) EXPECT_EQ(memcmp(&each, &empty, sizeof empty), 0);
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
  EXPECT_EQ(vx_mutex_lock(mutex), 0);
  EXPECT_EQ(vx_mutex_lock(mutex), 18);
  { const VxMutexLock again(mutex); }  // leaves it locked
  in_threads(1, [mutex](int) {
    EXPECT_EQ(vx_mutex_trylock(mutex), 12);
#ifndef __clang__  // whose thread sanitizer reports the misuse itself
    EXPECT_EQ(vx_mutex_unlock(mutex), 69);
#endif
  });
  EXPECT_EQ(vx_mutex_destroy(mutex), 0) << "locked as it is";
}

TEST(VxAtomic, EachOperationReturnsWhatItStates) {
  vx_atomic* atomic = vx_atomic_new(0xffffffff);
  EXPECT_EQ(vx_atomic_increment(atomic), 0U);
  EXPECT_EQ(vx_atomic_decrement(atomic), 0xffffffff);
  EXPECT_EQ(vx_atomic_exchange(atomic, 5), 0xffffffff);
  EXPECT_EQ(vx_atomic_exchange_add(atomic, 10), 5U);
  EXPECT_EQ(vx_atomic_exchange_compare(atomic, 1, 14), 15U);
  EXPECT_EQ(vx_atomic_exchange_compare(atomic, 1, 15), 15U) << "unchanged before";
  in_threads(8, [atomic](int) {
    for (int n = 0; n < 500; ++n) vx_atomic_increment(atomic);
  });
  EXPECT_EQ(vx_atomic_exchange(atomic, 0), 4001U);
  EXPECT_EQ(vx_atomic_destroy(atomic), 0);
}

TEST(VxThreadstorage, EachThreadHasItsValueAndDestructor) {
  static std::atomic<int> destroyed;
  vx_threadstorage* storage = vx_threadstorage_new([](void*) { ++destroyed; });
  in_threads(8, [storage](int i) {
    EXPECT_EQ(vx_threadstorage_get(storage), nullptr);
    EXPECT_EQ(vx_threadstorage_set(storage, &i), 0);
    EXPECT_EQ(vx_threadstorage_get(storage), &i);
  });
  EXPECT_EQ(destroyed, 8);
  EXPECT_EQ(vx_threadstorage_destroy(storage), 0);
  for (int i = 0; i < 2000; ++i) vx_threadstorage_destroy(vx_threadstorage_new(nullptr));
  EXPECT_NE(vx_threadstorage_new(nullptr), nullptr) << "keys are few, and come back";
}

TEST(VxThread, IdentitiesDiffer) {
  vx_thread* own = vx_thread_self();
  EXPECT_EQ(vx_thread_equal(own, vx_thread_self()), 1);
  EXPECT_EQ(vx_thread_equal(own, nullptr), 0);
  EXPECT_EQ(vx_thread_id(own) >> 32, static_cast<uint64_t>(getpid()));
  EXPECT_EQ(vx_thread_join(own, nullptr), 18);
  in_threads(2, [own](int) {
    EXPECT_EQ(vx_thread_equal(vx_thread_self(), own), 0);
    EXPECT_NE(vx_thread_id(vx_thread_self()), vx_thread_id(own));
    EXPECT_EQ(vx_thread_join(own, nullptr), 31);
  });
}

TEST(VxThread, SleepsUntilASignal) {
  std::signal(SIGALRM, [](int) {});
  ualarm(20000, 20000);  // again, in case the first comes before the sleep
  EXPECT_EQ(vx_thread_sleep(60000), 30);
  ualarm(0, 0);
}

struct Probe {
  vx_object_header header = {kVxObjectValid, 0};

  int32_t take_slot() {
    header.slot = _vx_reference_from_constructor(
        this, [](void* object) { return _vx_unreference_from_destructor(object) == 0 ? 101 : -7; });
    return header.slot;
  }
};

TEST(VxReference, TheLastOneDestroys) {
  Probe probe;
  EXPECT_GE(probe.take_slot(), 0);
  EXPECT_EQ(vx_reference(&probe), 0);
  EXPECT_EQ(vx_reference(&probe), 0);
  EXPECT_EQ(_vx_unreference_from_destructor(&probe), 3);
  EXPECT_EQ(vx_unreference(&probe), 0);
  EXPECT_EQ(vx_unreference(&probe), 101) << "the destroy function's result";
  EXPECT_EQ(vx_mutex_destroy(reinterpret_cast<vx_mutex*>(&probe)), 49);
}

TEST(VxReference, RefusesWhatIsNotInItsSlot) {
  EXPECT_EQ(vx_reference(nullptr), 31);
  Probe probe;
  probe.take_slot();
  for (int32_t slot : {probe.header.slot, -1, 1 << 30}) {
    Probe stranger = {{kVxObjectValid, slot}};
    EXPECT_EQ(vx_reference(&stranger), 49);
    EXPECT_EQ(vx_unreference(&stranger), 49);
    EXPECT_EQ(_vx_unreference_from_destructor(&stranger), -1);
  }
  probe.header.flags = 0;
  EXPECT_EQ(vx_unreference(&probe), 31);
}

TEST(VxReference, TakesTheLowestFreeSlotAndGrowsBy16) {
  (void)vx_error_get_last();  // makes the thread's record while there is memory
  std::vector<Probe> probes(5000);
  size_t taken = 1;
  probes[0].take_slot();  // the table is there from now on
  auto fill_the_table = [&](int granted) {
    const FailingMalloc shortage(granted);
    while (probes[taken].take_slot() >= 0) ++taken;
    return taken;
  };
  const size_t full = fill_the_table(0);
  EXPECT_EQ(fill_the_table(1), full + 16);
  for (size_t freed : {full + 2, full + 9, full + 5}) vx_unreference(&probes[freed]);
  for (size_t freed : {full + 2, full + 5, full + 9}) {
    EXPECT_EQ(probes[taken++].take_slot(), probes[freed].header.slot);
  }
  for (Probe& probe : probes) vx_unreference(&probe);
}

TEST(Liblvarp, EveryThreadHasABlockForItsLife) {
  liblocal_t_varp* own = get_liblocal_t_varp();
  auto live = [own] {
    in_threads(16, [own](int) {
      liblocal_t_varp* block = get_liblocal_t_varp();
      EXPECT_NE(block, own);
      EXPECT_EQ(get_liblocal_t_varp(), block);
      for (char** text : {&block->accrued_text, &block->message, &block->utf8_encoded.text,
                          &block->utf8_decoded.text, &block->utf8_path.text}) {
        EXPECT_EQ(*text, nullptr);
        *text = xstrdup("owned");
      }
      block->saved_error.text = xstrdup("owned");
      vx_error_set_last(1, 1);
      EXPECT_NE(vx_thread_self(), nullptr);
    });
  };
  EXPECT_EQ(pieces_left_by(live), 0);
}

TEST(Liblvarp, TheProcessBlockTakesTheShutdownRequestOnce) {
  liblocal_p_varp* published = Global_liblocal_p_varp;
  for (const std::string value : {"", "0", "no", "00"}) {
    SCOPED_TRACE(value);
    setenv("KIV_SHUTDOWN_STDIO", value.c_str(), 1);
    liblocal_p_init();
    liblocal_p_varp* block = Global_liblocal_p_varp;
    EXPECT_EQ(block->shutdown_stdio.exchange(0), value.size() > 1 ? 1 : 0);
    EXPECT_EQ(std::string(getenv("KIV_SHUTDOWN_STDIO")), value == "" ? "" : "0");
    liblocal_p_clean(block);
  }
  unsetenv("KIV_SHUTDOWN_STDIO");
  Global_liblocal_p_varp = published;
}

void say_x() { say("x"); }
void fill_exit_list() {
  vx_atexit([] { say("oldest"); });
  vx_atexit([] { vx_atexit([] { say("added by another, "); }); });
  vx_atexit(say_x);
  vx_atexit([] { say("newest, "); });
  EXPECT_EQ(vx_unatexit(say_x), 0);
  EXPECT_EQ(vx_unatexit(say_x), 49);
}

TEST(VxAtexit, RunsNewestFirstUnlessDisabled) {
  auto exits = testing::ExitedWithCode(3);
  const std::string all = "^newest, added by another, oldest$";
  EXPECT_EXIT((fill_exit_list(), exit(3)), exits, all);
  EXPECT_EXIT((fill_exit_list(), vx_atexit_disable(), exit(3)), exits, "^$");
  EXPECT_EXIT((fill_exit_list(), vx_atexit_disable(), vx_atexit_enable(), exit(3)), exits, all);
}

// Death tests in a process that has used nothing of the runtime yet.
class FreshProcess : public testing::Test {
 protected:
  FreshProcess() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

void exit_with_blocks() {
  atexit([] {  // after all clean-up
    vx_shutdown_stdio(nullptr);
    varp_add_data(nullptr, [](void*) { say("never"); });
    say(get_liblocal_p_varp() == nullptr ? "no block" : "a block");
  });
  get_probe_t_varp();  // its exit function is older than the registry's
  liblocal_add_release([] { say("release, "); });
  get_probe_p_varp();
  varp_add_data(nullptr, nullptr);
  varp_add_data(nullptr, [](void*) {
    std::thread([] { say(is_proc_exiting() == 1 ? "exiting, " : "not exiting, "); }).join();
  });
  vx_atexit([] { say(is_proc_exiting() == 0 ? "before, " : "too late, "); });
  exit(5);
}

TEST_F(FreshProcess, ReleasesItsBlocksNewestFirst) {
  EXPECT_EXIT(exit_with_blocks(), testing::ExitedWithCode(5),
              "^before, exiting, thread block, process block, release, no block$");
  EXPECT_EXIT((get_probe_t_varp(), exit(6)), testing::ExitedWithCode(6), "^thread block, $");
}

void leave_muted() {
  dup2(STDERR_FILENO, STDOUT_FILENO);
  fputs("output", stdout);
  vx_shutdown_stdio(nullptr);  // not requested yet
  get_liblocal_p_varp()->shutdown_stdio = 1;
  vx_atexit([] { _exit(fcntl(1, F_GETFD) < 0 && fcntl(2, F_GETFD) < 0 ? 7 : 8); });
  vx_exit(1);
}

TEST_F(FreshProcess, ShutsItsStreamsDownBeforeItExits) {
  EXPECT_EXIT(leave_muted(), testing::ExitedWithCode(7), "^output$");
}

// The first use of the registry and of the exit list, one allocation of which fails.
void first_use(int granted) {
  vx_error_set_last(0, 1);
  const FailingMalloc failing(granted, 1);
  varp_add_data(nullptr, [](void*) { say("cleaned"); });
  exit(vx_atexit([] { say("exit, "); }));
}

TEST_F(FreshProcess, SaysWhatItCannotMake) {
  EXPECT_EXIT(first_use(2), testing::KilledBySignal(SIGTERM),
              "^Failed to create internal atexit list: Cannot allocate memory\n$");
  EXPECT_EXIT(first_use(3), testing::KilledBySignal(SIGTERM),
              "^Failed to create progname mutex: Cannot allocate memory\n$");
  EXPECT_EXIT(first_use(0), testing::ExitedWithCode(0),
              "Failed to create varp lock: Cannot allocate memory\nexit, cleaned$");
}

// The milliseconds that `work` sleeps for while its first `refusals` allocations fail.
std::vector<int64_t> sleeps_of(int refusals, auto work) {
  std::vector<int64_t> slept;
  sleeps = &slept;
  {
    const FailingMalloc shortage(0, refusals);
    work();
  }
  sleeps = nullptr;
  return slept;
}

TEST(Waiting, ForMemory) {
  using testing::ElementsAre;
  EXPECT_THAT(sleeps_of(2, [] { free(xmalloc(10)); }), ElementsAre(5000, 5000));
  EXPECT_THAT(sleeps_of(1, [] { free(xcalloc(2, 10)); }), ElementsAre(5000));
  EXPECT_THAT(sleeps_of(2, [] { liblocal_t_clean(liblocal_t_init()); }), ElementsAre(2000, 2000));
  EXPECT_THAT(sleeps_of(0, [] { vx_thread_sleep(2001); }), ElementsAre(2001));
  EXPECT_EQ(xstrdup(nullptr), nullptr);
}

TEST(Waiting, EndsWithoutAKeyAfterItsLastWords) {
  (void)vx_error_get_last();  // makes the thread's record while there are keys
  keys_refused = 2;
  EXPECT_EQ(vx_threadstorage_new(nullptr), nullptr);
  EXPECT_EQ(vx_error_get_last(), 8);
  auto end = [] {
    static char buffer[BUFSIZ];
    setvbuf(stderr, buffer, _IOFBF, BUFSIZ);
    fputs("last words", fdopen(dup(2), "w"));
    (void)_varp_new_key("kiv", nullptr);
  };
  for (const char* printed :
       {"create_thread_key_kiv: unable to create thread-local storage key\\.", "last words"}) {
    EXPECT_EXIT(end(), testing::ExitedWithCode(1), printed);
  }
  keys_refused = 0;
}

}  // namespace

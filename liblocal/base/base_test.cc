// The base of the runtime: primitives, variable blocks, the end of the process, waits for memory.
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

namespace {

TEST(VxPrimitives, FailWithoutMemory) {
  vx_atexit_enable();  // makes the exit list
  in_threads(1, [](int) {
    vx_error_set_last(0, 1);
    const FailingMalloc none(0);
    EXPECT_EQ(vx_atexit([] {}), 53);
    EXPECT_EQ(vx_thread_self(), nullptr);
    EXPECT_EQ(vx_atomic_new(0), nullptr);
    EXPECT_EQ(vx_threadstorage_new(nullptr), nullptr);
    vx_atexit_enable();  // records nothing
    EXPECT_EQ(vx_error_get_last(), 53);
  });
  std::list<vx_threadstorage*> keys;
  while (keys.size() < 1999) {  // more than there are keys: one without a slot is deleted
    vx_error_set_last(0, 1);
    const FailingMalloc failing(1);
    keys.push_back(vx_threadstorage_new(nullptr));
  }
  EXPECT_EQ(keys.back(), nullptr);
  EXPECT_EQ(vx_error_get_last(), 53);
  for (vx_threadstorage* key : keys) vx_threadstorage_destroy(key);
}

TEST(VxPrimitives, NeedAnObject) {
  EXPECT_EQ(vx_thread_id(nullptr), 0U);
  EXPECT_EQ(vx_thread_equal(vx_thread_self(), nullptr), 0);
  EXPECT_EQ(vx_reference(nullptr), 31);
  vx_error_set_last(0, 1);
  EXPECT_EQ(vx_threadstorage_get(nullptr), nullptr);
  EXPECT_EQ(vx_error_get_last(), 31);
}

TEST(VxError, CodesComeBack) {
  std::string before;
  for (int code = -1; code < 86; ++code) {
    const int error = vx_error_to_errno(code);
    if (error == 0 || code == 9) continue;
    EXPECT_EQ(vx_error_from_errno(error), code);
    const std::string name = error == ENOTSUP ? "ENOTSUP" : strerrorname_np(error);
    EXPECT_LT(before, name);
    before = name;
  }
  EXPECT_EQ(vx_error_from_errno(EALREADY), 29);
  EXPECT_EQ(vx_error_from_errno(9999), 1);
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
              {0, 2, 0, "Resolver Error 0 (no error)"},
              {5, 4, 2, "Unknown error"}};
  for (const auto& row : rows) {
    vx_error_set_last(row.value, row.kind);
    EXPECT_EQ(vx_error_get_last(), row.code) << row.message;
    char message[64];
    vx_error_get_message(message, sizeof message);
    EXPECT_STREQ(message, row.message);
  }
}

TEST(VxSelect, SetsHoldDescriptors0To65535) {
  static vx_fd_set sets[3];  // those beside the middle one stay empty
  vx_fd_set& set = sets[1];
  for (int fd : {-1, 0, 64, 65535, 65536}) {
    VX_FD_SET(fd, &set);
    EXPECT_EQ(VX_FD_ISSET(fd, &set), fd >= 0 && fd < 65536) << fd;
    EXPECT_FALSE(VX_FD_ISSET(fd, sets)) << fd;
  }
  VX_FD_ZERO(&set);
  const vx_fd_set empty = {};
  for (const auto& each : sets) EXPECT_EQ(memcmp(&each, &empty, sizeof empty), 0);
}

int runs;  // plain: vx_once itself must order the write before the reads
TEST(VxOnce, RunsOnceHoweverManyRace) {
  vx_once_control control{};
  in_threads(16, [&control](int) {
    EXPECT_EQ(vx_once(&control, [] { ++runs; }), 0);
    EXPECT_EQ(runs, 1);
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
  EXPECT_EQ(vx_reference(mutex), 0);
  EXPECT_EQ(vx_mutex_destroy(mutex), 0) << "one of two references";
  EXPECT_EQ(vx_mutex_destroy(mutex), 0) << "locked as it is";
}

TEST(VxAtomic, EachOperationReturnsWhatItStates) {
  vx_atomic* atomic = vx_atomic_new(0xffffffff);
  EXPECT_EQ(vx_reference(atomic), 0);
  EXPECT_EQ(vx_atomic_exchange_add(atomic, 6), 0xffffffff);
  EXPECT_EQ(vx_atomic_exchange_compare(atomic, 1, 4), 5U);
  EXPECT_EQ(vx_atomic_increment(atomic), 6U);
  EXPECT_EQ(vx_atomic_exchange(atomic, 0), 6U);
  EXPECT_EQ(vx_atomic_destroy(atomic), 0);
  EXPECT_EQ(vx_atomic_decrement(atomic), 0xffffffff);
  EXPECT_EQ(vx_atomic_destroy(atomic), 0);
}

TEST(VxThread, IdentitiesDiffer) {
  vx_thread* own = vx_thread_self();
  EXPECT_EQ(vx_thread_equal(own, vx_thread_self()), 1);
  EXPECT_EQ(vx_thread_id(own) >> 32, static_cast<uint64_t>(getpid()));
  EXPECT_EQ(vx_thread_join(own, nullptr), 18);
  EXPECT_EQ(vx_thread_yield(), 0);
  EXPECT_EQ(vx_thr_initd(), 0);
  EXPECT_EQ(vx_thr_init(), 1);
  EXPECT_EQ(vx_thr_initd(), 1);
  in_threads(1, [own](int) {
    EXPECT_EQ(vx_thread_equal(vx_thread_self(), own), 0);
    EXPECT_EQ(vx_thread_join(own, nullptr), 31);
  });
}

struct Probe {
  vx_object_header header = {1, 0};

  int32_t take_slot() {
    header.slot = _vx_reference_from_constructor(
        this, [](void* object) { return _vx_unreference_from_destructor(object) == 0 ? 101 : -7; });
    return header.slot;
  }
};

TEST(VxReference, TheLastOneDestroys) {
  Probe probe, next;
  probe.take_slot();
  EXPECT_EQ(vx_reference(&probe), 0);
  EXPECT_EQ(_vx_unreference_from_destructor(&probe), 2);
  EXPECT_EQ(vx_reference(&probe), 0);
  EXPECT_EQ(vx_unreference(&probe), 0);
  EXPECT_EQ(vx_unreference(&probe), 101) << "the destroy function's result";
  EXPECT_EQ(next.take_slot(), probe.header.slot);
  vx_error_set_last(0, 1);
  for (; probe.header.slot < 99; ++probe.header.slot) {  // no slot is its own any more
    EXPECT_EQ(_vx_unreference_from_destructor(&probe), -1);
  }
  EXPECT_EQ(vx_error_get_last(), 49);
  vx_unreference(&next);
}

TEST(Liblvarp, EveryThreadHasABlockForItsLife) {
  liblocal_t_varp* own = get_liblocal_t_varp();
  auto live = [own](int /*thread*/) {
    vx_error_set_last(1, 1);
    liblocal_t_varp* block = get_liblocal_t_varp();
    EXPECT_EQ(vx_error_get_last(), 69);
    EXPECT_NE(block, own);
    EXPECT_EQ(get_liblocal_t_varp(), block);
    for (char** text : {&block->accrued_text, &block->message, &block->utf8_encoded.text,
                        &block->utf8_decoded.text, &block->utf8_path.text}) {
      *text = xstrdup("owned");
    }
    block->saved_error.text = xstrdup("owned");
    EXPECT_NE(vx_thread_self(), nullptr);
  };
  EXPECT_EQ(pieces_left_by([&] { in_threads(16, live); }), 0);
}

TEST(Liblvarp, TheShutdownRequestIsTakenOnce) {
  liblocal_p_varp* published = Global_liblocal_p_varp;
  for (const std::string value : {"", "0", "no"}) {
    setenv("KIV_SHUTDOWN_STDIO", value.c_str(), 1);
    liblocal_p_init();
    liblocal_p_varp* block = Global_liblocal_p_varp;
    EXPECT_EQ(block->shutdown_stdio.exchange(0), value == "no" ? 1 : 0) << value;
    EXPECT_STREQ(getenv("KIV_SHUTDOWN_STDIO"), value == "" ? "" : "0");
    liblocal_p_clean(block);
  }
  unsetenv("KIV_SHUTDOWN_STDIO");
  Global_liblocal_p_varp = published;
}

void say_x() { say("x"); }
void fill_exit_list() {
  vx_atexit([] { say("oldest"); });
  vx_atexit([] { vx_atexit([] { say("added by another, "); }); });
  if (vx_atexit(say_x) != 0) say("not added, ");
  vx_atexit([] { say("newest, "); });
  if (vx_unatexit(say_x) != 0) say("not removed, ");
  if (vx_unatexit(say_x) != 49) say("found again, ");
}

TEST(VxAtexit, RunsNewestFirstUnlessDisabled) {
  auto exits = testing::ExitedWithCode(3);
  EXPECT_EXIT((fill_exit_list(), vx_atexit_disable(), exit(3)), exits, "^$");
  EXPECT_EXIT((fill_exit_list(), vx_atexit_disable(), vx_atexit_enable(), exit(3)), exits,
              "^newest, added by another, oldest$");
}

// Death tests in a process that has used nothing of the runtime yet.
class FreshProcess : public testing::Test {
 protected:
  FreshProcess() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

void exit_with_blocks() {
  static const long before = pieces_held();
  atexit([] {  // the lock, the exit list's flag and mutex, a key and the table of references stay
    if (get_liblocal_p_varp() == nullptr && pieces_held() == before + 5 &&
        vx_error_get_last() == 0) {
      say("released");
    }
  });
  varp_add_data(nullptr, [](void*) {
    vx_error_set_last(1, 1);
    say("oldest, ");
  });
  for (int i = 0; i < 2; ++i) liblocal_add_release([] { say("release, "); });
  varp_add_data(nullptr, nullptr);
  varp_add_data(nullptr, [](void*) {
    std::thread([] { say(is_proc_exiting() == 1 ? "exiting, " : "not exiting, "); }).join();
  });
  vx_atexit([] { say(is_proc_exiting() == 0 ? "before, " : "too late, "); });
  get_liblocal_t_varp();
  vx_error_set_last(1, 1);
  exit(5);
}

TEST_F(FreshProcess, ReleasesItsBlocksNewestFirst) {
  EXPECT_EXIT(exit_with_blocks(), testing::ExitedWithCode(5),
              "^before, exiting, release, oldest, released$");
}

void leave_muted() {
  dup2(STDERR_FILENO, STDOUT_FILENO);
  setvbuf(stderr, nullptr, _IOFBF, BUFSIZ);
  for (int i = 0; i < 2; ++i) vx_shutdown_stdio(nullptr);  // not requested yet
  fputs("output, ", stdout);
  say("error");
  get_liblocal_p_varp()->shutdown_stdio = 1;
  vx_atexit([] { _exit(fcntl(1, F_GETFD) < 0 && fcntl(2, F_GETFD) < 0 ? 7 : 8); });
  vx_exit(1);
}

TEST_F(FreshProcess, ShutsItsStreamsDownBeforeItExits) {
  EXPECT_EXIT(leave_muted(), testing::ExitedWithCode(7), "^output, error$");
}

// The first use of the registry and of the exit list, one allocation of which fails.
void first_use(int granted) {
  vx_error_set_last(0, 1);
  const FailingMalloc failing(granted, 1);
  varp_add_data(nullptr, [](void*) { say("cleaned"); });
  exit(vx_atexit([] { say("exit, "); }));
}

TEST_F(FreshProcess, SaysWhatItCannotMake) {
  const testing::KilledBySignal killed(SIGTERM);
  EXPECT_EXIT(first_use(2), killed, "^Failed to create internal atexit list");
  EXPECT_EXIT(first_use(3), killed, "^Failed to create progname mutex: Cannot allocate memory\n$");
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
  EXPECT_THAT(sleeps_of(0, [] { EXPECT_EQ(vx_thread_sleep(2001), 0); }), ElementsAre(2001));
  EXPECT_EQ(xstrdup(nullptr), nullptr);
  static int asked_to_end;
  auto before = signal(SIGTERM, [](int) { ++asked_to_end; });
  auto record_an_error = [] { in_threads(1, [](int) { vx_error_set_last(1, 1); }); };
  EXPECT_THAT(sleeps_of(2, record_an_error), ElementsAre(2000, 2000));
  EXPECT_EQ(asked_to_end, 2);
  signal(SIGTERM, before);
}

void end_without_keys() {
  (void)vx_error_get_last();  // makes the thread's record while there are keys
  vx_threadstorage* first = vx_threadstorage_new(nullptr);
  while (vx_threadstorage_new(nullptr) != nullptr) continue;
  vx_threadstorage_destroy(first);
  (void)_varp_new_key("kiv", nullptr);  // in its place
  dup2(STDERR_FILENO, STDOUT_FILENO);
  if (vx_error_get_last() == 8) fputs("last words", stdout);
  (void)_varp_new_key("kiv", nullptr);
}

TEST_F(FreshProcess, EndsWithoutAKeyAfterItsLastWords) {
  EXPECT_EXIT(end_without_keys(), testing::ExitedWithCode(1),
              "create_thread_key_kiv: unable to create thread-local storage key\\.last words$");
}

}  // namespace

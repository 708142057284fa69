// The lowest room of the runtime: its primitives, its blocks and those of two modules of the
// test's own, the end of the process, and what waits instead of failing.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "liblocal/base/liblvarp.h"
#include "liblocal/base/vx_atomic.h"
#include "liblocal/base/vx_list.h"
#include "liblocal/base/vx_mutex.h"
#include "liblocal/base/vx_object.h"
#include "liblocal/base/vx_select.h"
#include "liblocal/base/vx_thread.h"
#include "liblocal/base/xmalloc.h"
#include "liblocal/messages/progname.h"
#include "tests/fakes.h"
#include "tests/work.h"

static void say(const char* what) { fputs(what, stderr); }
static void free_and_say(void* block, const char* what) {
  say(what);
  free(block);
}

// The thread sanitizer makes a key of its own before it can bear instrumented code.
#define PLAIN [[clang::disable_sanitizer_instrumentation]]
#pragma GCC diagnostic ignored "-Wattributes"

static int keys_refused, values_refused;
PLAIN static bool is_refused(int& left) { return left > 0 && left-- > 0; }
std::string* pauses = nullptr;  // written there instead of made: "seconds.nanoseconds "

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

// A module that tells when its blocks are cleaned, but for what its p_clean does.
#define TELLING_MODULE(M)                                           \
  struct M##_t_varp {};                                             \
  struct M##_p_varp {};                                             \
  VARP_DECLARE_THREAD_BLOCK(M)                                      \
  VARP_DECLARE_PROCESS_BLOCK(M)                                     \
  VARP_DEFINE_THREAD_BLOCK(M)                                       \
  VARP_DEFINE_PROCESS_BLOCK(M)                                      \
  M##_t_varp* M##_t_init() { return varp_new_block<M##_t_varp>(); } \
  void M##_t_clean(void* block) { free_and_say(block, #M "_t "); }  \
  void M##_p_init() { Global_##M##_p_varp = varp_new_block<M##_p_varp>(); }
TELLING_MODULE(probe)
TELLING_MODULE(late)  // first touched by the clean-up of the other

void late_p_clean(void* block) { free_and_say(block, "late_p "); }
void probe_p_clean(void* block) {
  free_and_say(block, "probe_p ");
  get_late_p_varp();
  get_late_t_varp();
  std::thread([] { say(is_proc_exiting() == 1 ? "exiting " : "not_exiting "); }).join();
}

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
                       vx_list_remove(nullptr, list), vx_list_remove(list, nullptr),
                       vx_atexit(nullptr), vx_unatexit(nullptr)}),
              testing::Each(2));
  EXPECT_EQ(vx_error_get_last(), 31);
  vx_thread* own = vx_thread_self();
  EXPECT_THAT((Results{static_cast<int64_t>(vx_thread_id(nullptr)), vx_thread_equal(nullptr, own),
                       vx_thread_equal(own, nullptr), vx_threadstorage_get(nullptr) != nullptr}),
              testing::Each(0));
  in_threads(1, [](int) {
    vx_error_set_last(0, 1);
    EXPECT_TRUE(vx_list_take_first(nullptr) == nullptr && vx_error_get_last() == 31);
    fakes::FailingMalloc nothing(0);
    EXPECT_TRUE(vx_mutex_new() == nullptr && vx_error_get_last() == 53);
    EXPECT_TRUE(vx_atomic_new(1) == nullptr && vx_threadstorage_new(nullptr) == nullptr);
    std::atomic<vx_mutex*> slot;
    EXPECT_TRUE(vx_thread_self() == nullptr && vx_mutex_made_once(&slot) == nullptr);
    EXPECT_EQ(vx_atexit([] {}), 53);
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
  vx_error_get_message(text.data() + 6, 1);
  EXPECT_EQ(text, std::string("xOpe\0x\0x", 8));
  in_threads(1, [](int) {
    EXPECT_EQ(vx_error_get_last(), 0);
    {
      fakes::FailingMalloc nothing(0);
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
#ifndef __clang__  // whose thread sanitizer reports the misuse itself
    EXPECT_EQ(vx_mutex_unlock(mutex), 69);
#endif
  });
  EXPECT_EQ(vx_mutex_unlock(mutex), 0);
  EXPECT_EQ((Results{vx_reference(mutex), vx_mutex_destroy(mutex), vx_mutex_lock(mutex),
                     vx_mutex_destroy(mutex)}),  // locked as it is
            Results(4, 0));
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
  EXPECT_TRUE(vx_threadstorage_get(storage) == &destroyed && !vx_threadstorage_destroy(storage));
  EXPECT_EQ(destroyed, 7) << "not for the thread without a value, nor at the end of the key";
  for (int i = 0; i < 2000; ++i) vx_threadstorage_destroy(vx_threadstorage_new(nullptr));
  EXPECT_NE(vx_threadstorage_new(nullptr), nullptr) << "keys are few, and come back";
}

TEST(VxThread, IdentitiesDiffer) {
  vx_thread* own = vx_thread_self();
  EXPECT_EQ((Results{vx_thread_equal(own, vx_thread_self()), vx_thread_join(own, nullptr)}),
            (Results{1, 18}));
  const auto slot = static_cast<uint32_t>(reinterpret_cast<vx_object_header*>(own)->slot);
  EXPECT_EQ(vx_thread_id(own), uint64_t(getpid()) << 32 | slot);
  in_threads(8, [own](int) {
    EXPECT_EQ(vx_thread_equal(vx_thread_self(), own), 0);
    EXPECT_EQ(vx_thread_join(own, nullptr), 31);
  });
}

TEST(VxThread, SleepsUntilASignal) {
  std::signal(SIGALRM, [](int) {});
  ualarm(20000, 0);
  EXPECT_EQ((Results{vx_thread_sleep(60000), vx_thread_yield(), vx_thr_initd(), vx_thr_init(),
                     vx_thr_initd()}),
            (Results{30, 0, 0, 1, 1}));
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
    EXPECT_EQ((Results{_vx_unreference_from_destructor(&stranger), vx_error_get_last(),
                       vx_reference(&stranger), vx_unreference(&stranger)}),
              (Results{-1, 49, 49, 49}));
  }
  EXPECT_EQ(vx_unreference(&probe), 101) << "the destroy function's result";
  EXPECT_EQ(vx_mutex_destroy(reinterpret_cast<vx_mutex*>(&probe)), 49);
}

TEST(VxReference, TheLowestFreeSlotIsTaken) {
  vx_error_set_last(0, 1);
  std::vector<Probe> probes(5000);
  size_t taken = 0;
  auto fill_the_table = [&](int granted) {
    fakes::FailingMalloc shortage(granted);
    const size_t before = taken;
    while (probes[taken].take_slot() >= 0) ++taken;
    EXPECT_EQ(vx_error_get_last(), 53);
    return taken - before;
  };
  probes[taken++].take_slot();  // what the table needs once is there now
  fill_the_table(0);
  EXPECT_EQ((fakes::FailingMalloc(1), vx_mutex_new()), nullptr) << "for want of a slot";
  EXPECT_EQ(fill_the_table(1), 16U) << "it grows by so many";
  const size_t last = taken - 1;
  for (size_t left : {last - 7, last - 2, last - 4}) EXPECT_EQ(vx_unreference(&probes[left]), 101);
  for (size_t free : {last - 7, last - 4, last - 2}) {
    EXPECT_EQ(probes[taken++].take_slot(), probes[free].header.slot);
  }
  for (Probe& probe : probes) vx_unreference(&probe);
}

// What every owned member of a thread block holds goes with the block.
void fill(liblocal_t_varp* block) {
  for (char** text : {&block->accrued_text, &block->message, &block->utf8_encoded.text,
                      &block->utf8_decoded.text, &block->utf8_path.text}) {
    *text = xstrdup("owned");
  }
  block->saved_error.text = xstrdup("saved");
}

TEST(Liblvarp, EveryThreadHasABlockForItsLife) {
  liblocal_t_varp* own = get_liblocal_t_varp();
  auto live = [own] {
    in_threads(16, [own](int) {
      liblocal_t_varp* block = get_liblocal_t_varp();
      EXPECT_TRUE(block != own && block->message == nullptr && get_liblocal_t_varp() == block);
      fill(block);
      vx_error_set_last(1, 1);
      EXPECT_NE(vx_thread_self(), nullptr);
    });
  };
  EXPECT_EQ(fakes::pieces_left_by(live), 0);
  EXPECT_EQ(get_liblocal_t_varp(), own);
}

TEST(Liblvarp, TheProcessBlockTakesTheShutdownRequestOnce) {
  liblocal_p_varp* published = Global_liblocal_p_varp;
  auto live = [] {
    for (auto [value, flag, left] :
         {std::tuple("", 0, ""), {"0", 0, "0"}, {"no", 1, "0"}, {"00", 1, "0"}}) {
      setenv("KIV_SHUTDOWN_STDIO", value, 1);
      liblocal_p_init();
      liblocal_p_varp* block = Global_liblocal_p_varp;
      EXPECT_EQ(block->shutdown_stdio.exchange(0), flag) << value;
      EXPECT_STREQ(getenv("KIV_SHUTDOWN_STDIO"), left);
      liblocal_p_clean(block);
    }
  };
  EXPECT_EQ(fakes::pieces_left_by(live), 0);
  unsetenv("KIV_SHUTDOWN_STDIO");
  Global_liblocal_p_varp = published;
}

void say_x() { say("x"); }
void fill_list() {
  vx_atexit([] { say("a"); });
  vx_atexit([] { vx_atexit([] { say("n"); }); });
  vx_atexit(say_x);
  vx_atexit([] { say("c"); });
  EXPECT_EQ(vx_unatexit(say_x), 0);
}

TEST(VxAtexit, RunsNewestFirst) {
  auto exits = testing::ExitedWithCode(3);
  EXPECT_EXIT((fill_list(), exit(3)), exits, "^cna$");
  EXPECT_EXIT((fill_list(), vx_atexit_disable(), exit(3)), exits, "^$");
  EXPECT_EXIT((fill_list(), vx_atexit_disable(), vx_atexit_enable(), exit(3)), exits, "^cna$");
  in_threads(4, [](int) { EXPECT_EQ(vx_atexit(say_x), 0); });
  for (int wanted : {0, 0, 0, 0, 49}) EXPECT_EQ(vx_unatexit(say_x), wanted);
}

void exit_with_blocks() {
  atexit([] {  // after all clean-up
    vx_shutdown_stdio(nullptr);
    varp_add_data(nullptr, [](void*) { say("never? "); });
    say(get_liblocal_p_varp() == nullptr && is_proc_exiting() == 1 ? "end" : "early? ");
  });
  get_probe_t_varp();  // its exit function is older than the registry's
  get_liblocal_p_varp();
  for (int i = 0; i < 2; ++i) {
    liblocal_add_release(+[] { say("errors "); });
    liblocal_add_release(say_x);
  }
  fill(get_liblocal_t_varp());
  get_probe_p_varp();
  varp_add_data(nullptr, nullptr);
  varp_add_data(nullptr, [](void*) { say("newest "); });
  vx_atexit([] { say(is_proc_exiting() == 0 ? "begin " : "late? "); });
  exit(5);
}

// Standard output and error are the same file, both with a buffer.
void leave_muted(int closers) {
  dup2(STDERR_FILENO, STDOUT_FILENO);
  static char buffers[2][BUFSIZ];
  setvbuf(stdout, buffers[0], _IOFBF, BUFSIZ);
  setvbuf(stderr, buffers[1], _IOFBF, BUFSIZ);
  liblocal_p_varp* block = get_liblocal_p_varp();  // whose own clean-up comes later
  vx_atexit([] {
    say("muted");
    const bool closed = fcntl(1, F_GETFD) < 0 && fcntl(2, F_GETFD) < 0;
    for (int i = 0; i < 2; ++i) open("/dev/null", O_WRONLY);
    vx_shutdown_stdio(nullptr);
    if (closed && fcntl(1, F_GETFD) >= 0 && fcntl(2, F_GETFD) >= 0) _exit(7);
  });
  say("words");
  fputs("last ", stdout);
  vx_shutdown_stdio(nullptr);
  block->shutdown_stdio = 1;
  in_threads(closers, [](int) { vx_shutdown_stdio(nullptr); });
  vx_exit(1);
}

// The first use of the registry and of the exit list, whose one allocation fails.
void first_use(int granted) {
  vx_error_set_last(0, 1);
  fakes::FailingMalloc one(granted, 1);
  varp_add_data(nullptr, [](void*) { say("cleaned"); });
  exit(vx_atexit([] { say("exit "); }));
}

TEST(Liblvarp, TheEndOfTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // in a process that has used nothing yet
  EXPECT_EXIT(exit_with_blocks(), testing::ExitedWithCode(5),
              "^begin newest probe_t probe_p exiting late_t late_p (errors ){1,2}xend$");
  EXPECT_EXIT((get_probe_t_varp(), exit(6)), testing::ExitedWithCode(6), "^probe_t $");
  for (int closers : {0, 4}) {
    EXPECT_EXIT(leave_muted(closers), testing::ExitedWithCode(7), "^last words$");
  }
  const std::string list = "^Failed to create internal atexit list: Cannot allocate memory\n$";
  EXPECT_EXIT(first_use(2), testing::KilledBySignal(SIGTERM), list);
  const std::tuple<int, int, std::string> cases[] = {
      // granted, status, what is told
      {0, 0,
       "^\\(pid [0-9]*\\): Failed to create varp lock: Cannot allocate memory\nexit cleaned$"},
      {2, 2, list},
      {3, 0, list},  // the switch is off
      {4, 0, "^Failed to create progname mutex: Cannot allocate memory\nexit cleaned$"}};
  for (const auto& [granted, status, told] : cases) {
    auto use = [granted = granted] { std::signal(SIGTERM, SIG_IGN), first_use(granted); };
    EXPECT_EXIT(use(), testing::ExitedWithCode(status), told) << granted;
  }
}

// The pauses of `work`, while its first `refusals` allocations fail.
std::string pauses_of(int refusals, auto work) {
  std::string made;
  made.reserve(100);
  pauses = &made;
  fakes::FailingMalloc shortage(0, refusals);
  work();
  pauses = nullptr;
  return made;
}

TEST(Waiting, ForMemory) {
  EXPECT_EQ(pauses_of(3, [] { free(xmalloc(10)); }), "5.0 5.0 5.0 ");
  EXPECT_EQ(pauses_of(1, [] { free(xcalloc(2, 10)); }), "5.0 ");
  EXPECT_EQ(pauses_of(1, [] { free(xstrdup("text")); }), "5.0 ");
  EXPECT_EQ(pauses_of(2, [] { liblocal_t_clean(liblocal_t_init()); }), "2.0 2.0 ");
  EXPECT_EQ(pauses_of(0, [] { EXPECT_EQ(vx_thread_sleep(2001), 0); }), "2.1000000 ");
  EXPECT_EQ(pauses_of(0, [] { _vx_pause_ms(2001); }), "2.1000000 ");
  EXPECT_EQ(xstrdup(nullptr), nullptr);
  in_threads(1, [](int) {  // for the place of its block
    vx_error_set_last(0, 1);
    values_refused = 2;
    EXPECT_EQ(pauses_of(0, get_liblocal_t_varp), "2.0 2.0 ");
  });
}

// Of a process that has used nothing yet, and goes on when it is asked to end.
void first_error() {
  static std::atomic<int> asked;
  std::signal(SIGTERM, [](int) { ++asked; });
  keys_refused = 1;
  values_refused = 2;
  std::string seen = pauses_of(3, [] { vx_error_set_last(EPERM, 1); });
  seen += std::to_string(vx_error_get_last()) + " " + std::to_string(asked);
  fakes::FailingMalloc after_object(1, 2);
  pauses = &(seen += " ");
  vx_mutex_destroy(vx_mutex_new());  // needs the first slots of the reference table
  fputs(seen.c_str(), stderr);
  _exit(3);
}

TEST(Waiting, ForTheRecordOfErrorsAndTheFirstSlots) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(first_error(), testing::ExitedWithCode(3), "^2.0 2.0 2.0 2.0 2.0 2.0 69 6 5.0 5.0 $");
  EXPECT_EXIT((keys_refused = 1, vx_error_set_last(EPERM, 1)), testing::KilledBySignal(SIGTERM),
              "^$");
}

TEST(Waiting, EndsWithoutAKey) {
  vx_error_set_last(0, 1);
  keys_refused = 2;
  EXPECT_EQ(vx_threadstorage_new(nullptr), nullptr);
  EXPECT_EQ(vx_error_get_last(), 8);
  EXPECT_EXIT((dup2(2, 1), printf("last words"), (void)_varp_new_key("kiv", nullptr)),
              testing::ExitedWithCode(1),
              "^create_thread_key_kiv: unable to create thread-local storage key\\.last words$");
  static char buffer[BUFSIZ];
  EXPECT_EXIT((setvbuf(stderr, buffer, _IOFBF, BUFSIZ), (void)_varp_new_key("kiv", nullptr)),
              testing::ExitedWithCode(1),
              "^create_thread_key_kiv: unable to create thread-local storage key\\.$");
  keys_refused = 0;
}

}  // namespace

// The blocks of the runtime and those of two modules of the test's own; and what waits
// instead of failing: the allocators, and all that a block or a record of errors needs.
#include "liblocal/threads/liblvarp.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "liblocal/messages/progname.h"
#include "liblocal/threads/vx_error.h"
#include "liblocal/threads/vx_mutex.h"
#include "liblocal/threads/vx_thread.h"
#include "liblocal/threads/xmalloc.h"
#include "tests/failing_malloc.h"
#include "tests/threads.h"

static void say(const char* what) { fputs(what, stderr); }
static void free_and_say(void* block, const char* what) {
  say(what);
  free(block);
}

// The thread sanitizer makes a key of its own before it can bear instrumented code.
#ifdef __clang__
#define PLAIN [[clang::disable_sanitizer_instrumentation]]
#else
#define PLAIN
#endif

static int keys_refused, values_refused;
PLAIN static bool is_refused(int& left) { return left > 0 && left-- > 0; }
static std::string* pauses = nullptr;  // written there instead of made: "seconds.nanoseconds "

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
  EXPECT_EQ(pieces_left_by(live), 0);
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
      block->local_addresses = static_cast<sockaddr_in*>(xmalloc(1));
      liblocal_p_clean(block);
    }
  };
  EXPECT_EQ(pieces_left_by(live), 0);
  unsetenv("KIV_SHUTDOWN_STDIO");
  Global_liblocal_p_varp = published;
}

void exit_with_blocks() {
  atexit([] {  // after all clean-up
    vx_shutdown_stdio(nullptr);
    varp_add_data(nullptr, [](void*) { say("never? "); });
    say(get_liblocal_p_varp() == nullptr && is_proc_exiting() == 1 ? "end" : "early? ");
  });
  get_probe_t_varp();  // its exit function is older than the registry's
  get_liblocal_p_varp()->local_addresses = nullptr;
  liblocal_set_release(LiblocalRelease::kErrorTables, [] { say("errors "); });
  liblocal_set_release(LiblocalRelease::kClientHostCache, [] { say("clients "); });
  liblocal_set_release(LiblocalRelease::kDnsHostCache, [] { say("dns "); });
  fill(get_liblocal_t_varp());
  get_probe_p_varp();
  varp_add_data(nullptr, nullptr);
  varp_add_data(nullptr, [](void*) { say("newest "); });
  vx_atexit([] {  // before all clean-up
    say(is_proc_exiting() == 0 ? "begin " : "late? ");
  });
  exit(5);
}

void exit_without_a_lock() {
  vx_set_progname("/bin/kivtrap");
  vx_error_set_last(0, 1);
  FailingMalloc one(0, 1);
  varp_add_data(nullptr, [](void*) { say("cleaned"); });
  exit(6);
}

// Standard output and error are the same file, both with a buffer.
void leave_muted(int closers) {
  dup2(STDERR_FILENO, STDOUT_FILENO);
  static char buffers[2][BUFSIZ];
  setvbuf(stdout, buffers[0], _IOFBF, BUFSIZ);
  setvbuf(stderr, buffers[1], _IOFBF, BUFSIZ);
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
  get_liblocal_p_varp()->shutdown_stdio = 1;
  in_threads(closers, [](int) { vx_shutdown_stdio(nullptr); });
  vx_exit(1);
}

TEST(Liblvarp, TheEndOfTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // in a process that has no blocks yet
  EXPECT_EXIT(exit_with_blocks(), testing::ExitedWithCode(5),
              "^begin newest probe_t probe_p exiting late_t late_p dns clients errors end$");
  EXPECT_EXIT(exit_without_a_lock(), testing::ExitedWithCode(6),
              "^kivtrap: Failed to create varp lock: Cannot allocate memory\ncleaned$");
  for (int closers : {0, 4}) {
    EXPECT_EXIT(leave_muted(closers), testing::ExitedWithCode(7), "^last words$");
  }
}

// The pauses of `work`, while its first `refusals` allocations fail.
std::string pauses_of(int refusals, auto work) {
  std::string made;
  made.reserve(100);
  pauses = &made;
  FailingMalloc shortage(0, refusals);
  work();
  pauses = nullptr;
  return made;
}

TEST(Waiting, ForMemory) {
  EXPECT_EQ(pauses_of(3, [] { free(xmalloc(10)); }), "5.0 5.0 5.0 ");
  EXPECT_EQ(pauses_of(1, [] { free(xcalloc(2, 10)); }), "5.0 ");
  EXPECT_EQ(pauses_of(1, [] { free(xstrdup("text")); }), "5.0 ");
  EXPECT_EQ(pauses_of(2, [] { liblocal_t_clean(liblocal_t_init()); }), "2.0 2.0 ");
  EXPECT_EQ(pauses_of(0, [] { EXPECT_EQ(vx_thread_sleep(1234), 0); }), "1.234000000 ");
  EXPECT_EQ(pauses_of(0, [] { _vx_pause_ms(1234); }), "1.234000000 ");
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
  FailingMalloc after_object(1, 2);
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
  EXPECT_EXIT((void)_varp_new_key("kiv", nullptr), testing::ExitedWithCode(1),
              "^create_thread_key_kiv: unable to create thread-local storage key\\.$");
  keys_refused = 0;
}

}  // namespace

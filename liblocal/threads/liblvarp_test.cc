// The blocks of the runtime, and those of two modules of the test's own.
#include "liblocal/threads/liblvarp.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "liblocal/messages/progname.h"
#include "liblocal/threads/vx_error.h"
#include "liblocal/threads/vx_thread.h"
#include "liblocal/threads/xmalloc.h"
#include "tests/failing_malloc.h"
#include "tests/threads.h"

namespace {

std::atomic<int> made, cleaned;

}  // namespace

// The module whose clean-up speaks, and which counts its thread blocks.
struct probe_t_varp {};
struct probe_p_varp {};
// The module that is first touched by the clean-up of the other.
using late_t_varp = probe_t_varp;
using late_p_varp = probe_p_varp;

VARP_DECLARE_THREAD_BLOCK(probe)
VARP_DECLARE_PROCESS_BLOCK(probe)
VARP_DECLARE_THREAD_BLOCK(late)
VARP_DECLARE_PROCESS_BLOCK(late)
VARP_DEFINE_THREAD_BLOCK(late)
VARP_DEFINE_PROCESS_BLOCK(late)
VARP_DEFINE_THREAD_BLOCK(probe)
VARP_DEFINE_PROCESS_BLOCK(probe)

bool speaking = false;
void say(const char* what) {
  if (speaking) fputs(what, stderr);
}
void free_and_say(void* block, const char* what) {
  say(what);
  free(block);
}

probe_t_varp* probe_t_init() {
  ++made;
  return varp_new_block<probe_t_varp>();
}
void probe_t_clean(void* block) {
  ++cleaned;
  free_and_say(block, "probe_t ");
}
void probe_p_init() { Global_probe_p_varp = varp_new_block<probe_p_varp>(); }
void probe_p_clean(void* block) {
  free_and_say(block, "probe_p ");
  get_late_p_varp();
  get_late_t_varp();
  int exiting = 0;
  std::thread([&exiting] { exiting = is_proc_exiting(); }).join();
  say(exiting == 1 ? "exiting " : "not_exiting ");
}

late_t_varp* late_t_init() { return varp_new_block<late_t_varp>(); }
void late_t_clean(void* block) { free_and_say(block, "late_t "); }
void late_p_init() { Global_late_p_varp = varp_new_block<late_p_varp>(); }
void late_p_clean(void* block) { free_and_say(block, "late_p "); }

namespace {

// What every owned member of a thread block holds goes with the block.
void fill(liblocal_t_varp* block) {
  block->saved_error.text = xstrdup("saved");
  block->accrued_text = xstrdup("accrued");
  block->message = xstrdup("message");
  for (auto* buffer : {&block->utf8_encoded, &block->utf8_decoded, &block->utf8_path}) {
    *buffer = {xstrdup("buffer"), 7};
  }
}

TEST(Liblvarp, EveryThreadHasABlockForItsLife) {
  liblocal_t_varp* own = get_liblocal_t_varp();
  auto live = [own] {
    in_threads(16, [own](int) {
      liblocal_t_varp* block = get_liblocal_t_varp();
      EXPECT_NE(block, own);
      EXPECT_EQ(block->message, nullptr);
      EXPECT_EQ(get_liblocal_t_varp(), block);
      fill(block);
      vx_error_set_last(1, 1);
      EXPECT_NE(vx_thread_self(), nullptr);
      get_probe_t_varp();
    });
  };
  EXPECT_LT(bytes_left_by(200, live), 200 * 16 * 24);
  EXPECT_EQ(get_liblocal_t_varp(), own);
  EXPECT_EQ(made, 201 * 16);
  EXPECT_EQ(cleaned, made);
}

TEST(Liblvarp, TheProcessBlockGoesWithAllItOwns) {
  liblocal_p_varp* published = Global_liblocal_p_varp;
  auto live = [] {
    liblocal_p_init();
    Global_liblocal_p_varp.load()->local_addresses = static_cast<sockaddr_in*>(xmalloc(1000));
    liblocal_p_clean(Global_liblocal_p_varp);
  };
  EXPECT_LT(bytes_left_by(1000, live), 1000 * 24);
  Global_liblocal_p_varp = published;
}

void exit_with_blocks() {
  speaking = true;
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
  speaking = true;
  vx_set_progname("/bin/kivtrap");
  vx_error_set_last(0, 1);
  {
    FailingMalloc one(0, 1);
    varp_add_data(nullptr, [](void*) { say("cleaned"); });
  }
  exit(6);
}

TEST(Liblvarp, ExitCleansNewestFirst) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // in a process that has no blocks yet
  EXPECT_EXIT(exit_with_blocks(), testing::ExitedWithCode(5),
              "^begin newest probe_t probe_p exiting late_t late_p dns clients errors end$");
  EXPECT_EXIT(exit_without_a_lock(), testing::ExitedWithCode(6),
              "^kivtrap: Failed to create varp lock: Cannot allocate memory\ncleaned$");
}

TEST(Liblvarp, TheShutdownRequestIsTakenOnce) {
  constexpr const char* kName = "KIV_SHUTDOWN_STDIO";
  const std::tuple<const char*, int, const char*> cases[] = {
      {"", 0, ""}, {"0", 0, "0"}, {"no", 1, "0"}, {"00", 1, "0"}};
  liblocal_p_varp* published = Global_liblocal_p_varp;
  for (const auto& [value, flag, left] : cases) {
    setenv(kName, value, 1);
    liblocal_p_init();
    EXPECT_EQ(Global_liblocal_p_varp.load()->shutdown_stdio, flag) << value;
    EXPECT_STREQ(getenv(kName), left);
    free(Global_liblocal_p_varp);
  }
  unsetenv(kName);
  Global_liblocal_p_varp = published;
}

// Standard output and error are the same file, both with a buffer.
void leave_muted(int closers) {
  dup2(STDERR_FILENO, STDOUT_FILENO);
  static char buffers[2][BUFSIZ];
  setvbuf(stdout, buffers[0], _IOFBF, BUFSIZ);
  setvbuf(stderr, buffers[1], _IOFBF, BUFSIZ);
  vx_atexit([] {
    fputs("muted", stderr);
    const bool closed = fcntl(1, F_GETFD) < 0 && fcntl(2, F_GETFD) < 0;
    for (int i = 0; i < 2; ++i) open("/dev/null", O_WRONLY);
    vx_shutdown_stdio(nullptr);
    if (closed && fcntl(1, F_GETFD) >= 0 && fcntl(2, F_GETFD) >= 0) _exit(7);
  });
  fputs("words", stderr);
  fputs("last ", stdout);
  vx_shutdown_stdio(nullptr);
  get_liblocal_p_varp()->shutdown_stdio = 1;
  in_threads(closers, [](int) { vx_shutdown_stdio(nullptr); });
  vx_exit(1);
}

TEST(Liblvarp, ShutsTheStreamsDownOnce) {
  for (int closers : {0, 4}) {
    EXPECT_EXIT(leave_muted(closers), testing::ExitedWithCode(7), "^last words$");
  }
}

}  // namespace

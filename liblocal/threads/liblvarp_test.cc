// The blocks of the runtime, and those of two modules of the test's own.
#include "liblocal/threads/liblvarp.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "liblocal/messages/progname.h"
#include "liblocal/threads/vx_error.h"
#include "liblocal/threads/vx_thread.h"
#include "liblocal/threads/xmalloc.h"
#include "tests/failing_malloc.h"
#include "tests/threads.h"

namespace {

void say(const char* what) { fputs(what, stderr); }
void free_and_say(void* block, const char* what) {
  say(what);
  free(block);
}

}  // namespace

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
      EXPECT_NE(block, own);
      EXPECT_EQ(block->message, nullptr);
      EXPECT_EQ(get_liblocal_t_varp(), block);
      fill(block);
      vx_error_set_last(1, 1);
      EXPECT_NE(vx_thread_self(), nullptr);
    });
  };
  EXPECT_EQ(pieces_left_by(live), 0);
  EXPECT_EQ(get_liblocal_t_varp(), own);
}

TEST(Liblvarp, TheProcessBlockTakesTheShutdownRequestOnce) {
  constexpr const char* kName = "KIV_SHUTDOWN_STDIO";
  const std::tuple<const char*, int, const char*> cases[] = {
      {"", 0, ""}, {"0", 0, "0"}, {"no", 1, "0"}, {"00", 1, "0"}};
  liblocal_p_varp* published = Global_liblocal_p_varp;
  for (const auto& [value, flag, left] : cases) {
    auto live = [value = value, flag = flag, left = left] {
      setenv(kName, value, 1);
      liblocal_p_init();
      liblocal_p_varp* block = Global_liblocal_p_varp;
      EXPECT_EQ(block->shutdown_stdio.exchange(0), flag) << value;
      EXPECT_STREQ(getenv(kName), left);
      block->local_addresses = static_cast<sockaddr_in*>(xmalloc(1));
      liblocal_p_clean(block);
    };
    EXPECT_EQ(pieces_left_by(live), 0);
  }
  unsetenv(kName);
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
  {
    FailingMalloc one(0, 1);
    varp_add_data(nullptr, [](void*) { say("cleaned"); });
  }
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

}  // namespace

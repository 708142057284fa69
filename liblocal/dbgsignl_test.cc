#include "liblocal/dbgsignl.h"

#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <thread>

#include "liblocal/debug.h"
#include "liblocal/errinfo.h"
#include "liblocal/regevent.h"
#include "liblocal/vx_select.h"
#include "liblocal/vxinit.h"
#include "tests/lab.h"

namespace {

class DebugCommand : public testing::Test {
 protected:
  void SetUp() override {
    vx_set_progname("kivtrap");
    snprintf(Dbgcmdpath, sizeof Dbgcmdpath, "%s/vxdbg.%d", testing::TempDir().c_str(), getpid());
    Debug = Vflag = PrintDevInfo = 1;
    EXPECT_EQ(regevent_setup(), 0);
  }
  void TearDown() override {
    remove(Dbgcmdpath);
    Debug = Vflag = PrintDevInfo = 0;
  }

  // What the signal makes the process write.
  static std::string signalled() {
    testing::internal::CaptureStderr();
    raise(SIGUSR2);
    return testing::internal::GetCapturedStderr();
  }
  static bool file_is_there() {
    struct stat status;
    return lstat(Dbgcmdpath, &status) == 0;
  }
};

// The line that tells the change of a level from 1 to `value`.
std::string change(const std::string& level, int value) {
  return "kivtrap: Changing " + level + " of process (id " + std::to_string(getpid()) +
         ") from 1 to " + std::to_string(value) + "\n";
}

TEST_F(DebugCommand, Commands) {
  const std::string too_much(kDebugCommandLimit, ' ');
  const struct {
    std::string text;
    int debug;  // 1 at first
  } cases[] = {{"Debug=3", 3},
               {" \t\n dEBUG \t\n=\n 3\n", 3},
               {"Debug=3x4", 3},
               {"Debug=abc", 0},
               {"Debug=-", 0},
               {"Debug=-0", 0},
               {"Debug", 0},
               {"Debug\n", 0},
               {"Debug=2147483647", INT32_MAX},
               {"Debug=99999999999999999999", INT32_MAX},
               {"Debug 3", 1},
               {"Debug=", 1},
               {"Debug= \n", 1},
               {"Debug1=3", 1},
               {"Debu=3", 1},
               {"Debugger=3", 1},
               {std::string("Debug\0=3", 8), 1},
               {"=3", 1},
               {"", 1},
               {"Debug=-5", 1},
               {"Debug=-99999999999999999999", 1},
               {"Debug=3" + too_much, 3},
               // 1024 bytes are read, of a value only what stands there
               {too_much.substr(8) + "Debug=34", 34},
               {too_much.substr(7) + "Debug=34", 3},
               {too_much + "Debug=3", 1}};
  for (const auto& [text, level] : cases) {
    Debug = 1;
    lab::write_file(Dbgcmdpath, text);
    EXPECT_EQ(signalled(), level != 1 ? change("Debug level", level) : "") << text;
    EXPECT_EQ(Debug, level) << text;
    EXPECT_FALSE(file_is_there()) << text;
  }
  EXPECT_EQ(signalled(), "") << "without a file";
  lab::write_file(Dbgcmdpath, "vflag=7");
  EXPECT_EQ(signalled(), change("Vflag level", 7));
  lab::write_file(Dbgcmdpath, "PRINTDEVINFO=8");
  EXPECT_EQ(signalled(), change("PrintDevInfo", 8));
  EXPECT_EQ(Vflag, 7);
  EXPECT_EQ(PrintDevInfo, 8);
}

TEST_F(DebugCommand, WhatIsTold) {
  Debug = -1;
  lab::write_file(Dbgcmdpath, "Debug=4");
  EXPECT_EQ(signalled(), "");
  EXPECT_EQ(Debug, 4);
  const std::string name(1000, 'n'), value = "-1234567890123456789012";  // 1024 bytes with the '='
  lab::write_file(Dbgcmdpath, name + "=" + value);
  EXPECT_EQ(signalled(), "kivtrap: " + value + " is an invalid value for " + name + "\n");
  const std::string path = testing::TempDir() + "/debug_lines";
  dfopen(path.c_str());
  Debug = 1;
  lab::write_file(Dbgcmdpath, "Debug=0");
  EXPECT_EQ(signalled(), "");
  dfclose();
  EXPECT_THAT(lab::read_file(path), testing::EndsWith(change("Debug level", 0)));
  remove(path.c_str());
}

TEST_F(DebugCommand, OnlyARegularFileIsTaken) {
  const std::string target = std::string(Dbgcmdpath) + ".target";
  lab::write_file(target, "Debug=3");
  const std::pair<const char*, std::function<int()>> cases[] = {
      {"symbolic link", [&] { return symlink(target.c_str(), Dbgcmdpath); }},
      {"directory", [] { return mkdir(Dbgcmdpath, 0777); }},
      {"FIFO", [] { return mkfifo(Dbgcmdpath, 0666); }},
  };
  for (const auto& [name, make] : cases) {
    ASSERT_EQ(make(), 0) << name;
    errno = EBUSY;
    EXPECT_EQ(signalled(), "") << name;
    EXPECT_EQ(Debug, 1) << name;
    EXPECT_TRUE(file_is_there()) << name;
    ASSERT_EQ(remove(Dbgcmdpath), 0);
  }
  EXPECT_EQ(lab::read_file(target), "Debug=3");
  remove(target.c_str());
  strcpy(Dbgcmdpath, "/proc/self/clear_refs");  // a regular file that cannot be read
  EXPECT_EQ(signalled(), "");
  EXPECT_EQ(Debug, 1);
}

TEST_F(DebugCommand, ReachesAWaitingProcess) {
  lab::write_file(Dbgcmdpath, "Debug = 3\n");
  testing::internal::CaptureStderr();
  std::atomic<bool> waiting = false;
  const std::string state = "/proc/self/task/" + std::to_string(gettid()) + "/stat";
  std::thread operator_([&, waiter = pthread_self()] {
    while (!waiting || lab::read_file(state).find(") S ") == std::string::npos) usleep(1000);
    pthread_kill(waiter, SIGUSR2);
  });
  timeval limit = {30, 0};
  waiting = true;
  int result = vx_select(0, nullptr, nullptr, nullptr, &limit);
  int error = errno;
  int level = Debug;
  operator_.join();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), change("Debug level", 3));
  EXPECT_EQ(result, -1);
  EXPECT_EQ(error, EINTR);
  EXPECT_EQ(level, 3);
  EXPECT_FALSE(file_is_there());
}

// The signal lands anywhere in the work of the thread that takes it.
TEST_F(DebugCommand, AThousandSignals) {
  Debug = -1;
  std::atomic<bool> done = false;
  std::thread operator_([&, worker = pthread_self()] {
    for (int i = 0; i < 1000; ++i) {
      lab::write_file(Dbgcmdpath, "Vflag=" + std::to_string(i));
      pthread_kill(worker, SIGUSR2);
      while (Vflag != i || file_is_there()) usleep(10);
    }
    done = true;
  });
  int number = 0;
  for (; !done; ++number) {
    errno = EBUSY;
    ASSERT_EQ(err_setstr(3, 5001, "%d", number)->text, std::to_string(number));
    ASSERT_EQ(errno, EBUSY);
  }
  operator_.join();
  EXPECT_EQ(Vflag, 999);
  EXPECT_GT(number, 0);
}

// Lines written while the program at `path` waits; the debugger comes with a signal.
std::string waited(const char* path) {
  struct sigaction release = {};
  release.sa_handler = [](int) { Debug_me = 0; };
  sigaction(SIGALRM, &release, nullptr);
  testing::internal::CaptureStderr();
  ualarm(50000, 0);
  debug_check(path);
  bool held = Debug_me == 0;
  ualarm(0, 0);
  std::string text = testing::internal::GetCapturedStderr();
  return held ? text : "not held";
}

TEST(DebugCheck, WhoWaits) {
  vx_set_progname("kivtrap");
  const std::string pid = std::to_string(getpid());
  const struct {
    int force;
    const char *path, *programs;
    bool waits;
  } cases[] = {
      {0, "/usr/bin/KIVtrap.exe/", "other,kivtrapper", true},
      {0, "kivtrap", "KIVTRAP", true},
      {0, "kivtrap", "kivtra", false},
      {0, "kivtrap", " kivtrap", false},
      {0, "kivtrap", nullptr, false},
      {1, "kivtrap", nullptr, true},
  };
  for (const auto& [force, path, programs, waits] : cases) {
    Debug_me = 1;
    Force_debug = force;
    unsetenv("KIV_DEBUGPROCS");
    if (programs != nullptr) setenv("KIV_DEBUGPROCS", programs, 1);
    EXPECT_EQ(waited(path),
              waits ? "kivtrap: kivtrap (" + pid + ") waiting to be debugged\n" : "not held");
    EXPECT_EQ(Force_debug, 0);
  }
  Debug_me = 0;
  setenv("KIV_DEBUGPROCS", "kivtrap", 1);
  EXPECT_EQ(waited("kivtrap"), "") << "nobody asked";
}

}  // namespace

#include "liblocal/startup/dbgsignl.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "liblocal/messages/debug.h"
#include "liblocal/messages/errinfo.h"
#include "liblocal/startup/regevent.h"
#include "liblocal/startup/vxinit.h"
#include "liblocal/threads/vx_select.h"
#include "tests/lab.h"
#include "tests/printed.h"

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

  // What the process writes when signalled, with `text` in the command file.
  static std::string told(const std::string& text) {
    lab::write_file(Dbgcmdpath, text);
    return told();
  }
  static std::string told() {
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
  const std::string filler(kDebugCommandLimit, ' ');
  const std::pair<int, std::vector<std::string>> cases[] = {
      {3, {" \t\n dEBUG \t\n=\n 3\n", "Debug=3x4", "Debug=3" + filler}},
      {0, {"Debug=abc", "Debug=-0", "Debug \n"}},
      {INT32_MAX, {"Debug=2147483647", "Debug=2147483648", "Debug=99999999999999999999"}},
      // 1024 bytes are read, of a value only what stands there
      {34, {filler.substr(8) + "Debug=34"}},
      {3, {filler.substr(7) + "Debug=34"}},
      // left as it was
      {1,
       {"Debug 3", "Debug=", "Debu=3", "Debugger=3", "=3", "", std::string("Debug\0=3", 8),
        "Debug=-5", "Debug=-99999999999999999999", filler + "Debug=3"}}};
  for (const auto& [level, texts] : cases) {
    for (const std::string& text : texts) {
      Debug = 1;
      EXPECT_EQ(told(text), level != 1 ? change("Debug level", level) : "") << text;
      EXPECT_EQ(Debug, level) << text;
      EXPECT_FALSE(file_is_there()) << text;
    }
  }
  EXPECT_EQ(told(), "") << "without a file";
  EXPECT_EQ(told("vflag=7"), change("Vflag level", 7));
  EXPECT_EQ(told("PRINTDEVINFO=8"), change("PrintDevInfo", 8));
}

TEST_F(DebugCommand, WhatIsTold) {
  Debug = 3;
  const std::string name(1000, 'n'), value = "-1234567890123456789012";  // 1024 bytes with '='
  EXPECT_EQ(told(name + "=" + value),
            "kivtrap: " + value + " is an invalid value for " + name + "\n");
  const std::string path = testing::TempDir() + "/debug_lines";
  Debug = 1;
  dfopen(path.c_str());
  EXPECT_EQ(told("Debug=0"), "");
  dfclose();
  EXPECT_EQ(lab::read_file(path), change("Debug level", 0));
  remove(path.c_str());
}

TEST_F(DebugCommand, OnlyARegularFileIsTaken) {
  const std::string target = std::string(Dbgcmdpath) + ".target";
  lab::write_file(target, "Debug=3");
  for (char kind : {'l', 'd', 'f'}) {
    ASSERT_EQ(kind == 'l'   ? symlink(target.c_str(), Dbgcmdpath)
              : kind == 'd' ? mkdir(Dbgcmdpath, 0777)
                            : mkfifo(Dbgcmdpath, 0666),
              0);
    EXPECT_EQ(told(), "") << kind;
    EXPECT_EQ(Debug, 1) << kind;
    EXPECT_EQ(remove(Dbgcmdpath), 0) << kind;
  }
  EXPECT_EQ(lab::read_file(target), "Debug=3");
  remove(target.c_str());
  snprintf(Dbgcmdpath, sizeof Dbgcmdpath, "/proc/self/clear_refs");  // regular, but unreadable
  EXPECT_EQ(told(), "");
  EXPECT_EQ(Debug, 1);
}

TEST_F(DebugCommand, ReachesAWaitingProcess) {
  lab::write_file(Dbgcmdpath, "Debug = 3\n");
  testing::internal::CaptureStderr();
  std::atomic<bool> waiting = false;
  const std::string state = "/proc/self/task/" + std::to_string(gettid()) + "/stat";
  std::thread sender([&, waiter = pthread_self()] {
    while (!waiting || lab::read_file(state).find(") S ") == std::string::npos) usleep(1000);
    pthread_kill(waiter, SIGUSR2);
  });
  timeval limit = {30, 0};
  waiting = true;
  EXPECT_EQ(vx_select(0, nullptr, nullptr, nullptr, &limit), -1);
  EXPECT_EQ(errno, EINTR);
  EXPECT_EQ(Debug, 3);
  EXPECT_FALSE(file_is_there());
  sender.join();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), change("Debug level", 3));
}

// The signal lands anywhere in the work of the thread that takes it.
TEST_F(DebugCommand, AThousandSignals) {
  Debug = -1;
  std::atomic<bool> done = false;
  std::thread sender([&, worker = pthread_self()] {
    for (int i = 0; i < 1000; ++i) {
      lab::write_file(Dbgcmdpath, "Vflag=" + std::to_string(i));
      pthread_kill(worker, SIGUSR2);
      while (Vflag != i || file_is_there()) usleep(10);
    }
    done = true;
  });
  for (int number = 0; !done; ++number) {
    errno = EBUSY;
    EXPECT_EQ(err_setstr(3, 5001, "%d", number)->text, std::to_string(number));
    EXPECT_EQ(errno, EBUSY);
  }
  sender.join();
}

TEST(DebugCheck, WhoWaits) {
  const std::string line =
      "kivtrap: kivtrap (" + std::to_string(getpid()) + ") waiting to be debugged\n";
  const struct {
    int me, force;
    const char *path, *programs;
    bool waits;
  } cases[] = {{1, 0, "/usr/bin/KIVtrap.exe/", "other,kivtrapper", true},
               {1, 0, "kivtrap", "kivtra, kivtrap", false},
               {0, 1, "kivtrap", "", true},
               {0, 0, "kivtrap", "kivtrap", false}};
  signal(SIGALRM, [](int) { Debug_me = 0; });  // the debugger
  for (const auto& [me, force, path, programs, waits] : cases) {
    Debug_me = me;
    Force_debug = force;
    setenv("KIV_DEBUGPROCS", programs, 1);
    if (waits) ualarm(50000, 0);
    EXPECT_EQ(printed(0, [path = path] { debug_check(path); }), waits ? line : "");
    EXPECT_EQ(Force_debug, 0);
  }
  Debug_me = 0;
}

}  // namespace

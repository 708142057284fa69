#include "liblocal/startup/dbgsignl.h"

#include <unistd.h>

#include "liblocal/messages/print.h"
#include "liblocal/startup/regevent.h"
#include "tests/lab.h"
#include "tests/printed.h"
#include "tests/stand_ins.h"

std::atomic<int> waits_for_debugger;  // so many, and it is there; 0: the program sleeps

// What the linker puts in the place of vx_thread_sleep.
extern "C" int32_t __real__Z15vx_thread_sleepj(uint32_t milliseconds);
extern "C" int32_t __wrap__Z15vx_thread_sleepj(uint32_t milliseconds) {
  if (waits_for_debugger == 0) return __real__Z15vx_thread_sleepj(milliseconds);
  EXPECT_EQ(milliseconds, 10000);
  if (--waits_for_debugger == 0) Debug_me = 0;  // the debugger is there
  return 0;
}

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
  static std::string told(std::optional<std::string> text = {}) {
    if (text) lab::write_file(Dbgcmdpath, *text);
    testing::internal::CaptureStderr();
    errno = EBUSY;
    raise(SIGUSR2);
    EXPECT_EQ(errno, EBUSY);
    return testing::internal::GetCapturedStderr();
  }
};

// The line that tells the change of a level from 1 to `value`.
std::string change(const std::string& level, int value) {
  const std::string process = " of process (id " + std::to_string(getpid()) + ")";
  return "kivtrap: Changing " + level + process + " from 1 to " + std::to_string(value) + "\n";
}

TEST_F(DebugCommand, Commands) {
  const std::string filler(kDebugCommandLimit, ' ');
  const std::pair<int, std::vector<std::string>> cases[] = {
      {3, {" \t\n dEBUG \t\n=\n 3\n", "Debug=3x4", "Debug=3" + filler}},
      {0, {"Debug=abc", "Debug=-0", "Debug \n"}},
      {INT32_MAX, {"Debug=2147483647", "Debug=2147483648", "Debug=99999999999999999999"}},
      {34, {filler.substr(8) + "Debug=34"}},  // 1024 bytes are read, of a value only what is there
      {3, {filler.substr(7) + "Debug=34"}},
      {1,  // left as it was
       {"Debug 3", "Debug=", "Debu=3", "Debugger=3", "=3", "", std::string("Debug\0=3", 8),
        "Debug=-5", "Debug=-99999999999999999999", filler + "Debug=3"}}};
  for (const auto& [level, texts] : cases) {
    for (const std::string& text : texts) {
      Debug = 1;
      EXPECT_EQ(told(text), level != 1 ? change("Debug level", level) : "") << text;
      EXPECT_TRUE(Debug == level && access(Dbgcmdpath, F_OK) == -1) << text;
    }
  }
  EXPECT_EQ(told(), "") << "without a file";
  EXPECT_EQ(told("vflag=7"), change("Vflag level", 7));
  EXPECT_EQ(told("PRINTDEVINFO=8"), change("PrintDevInfo", 8));
  EXPECT_EQ(Vflag * 10 + PrintDevInfo, 78);
  lab::write_file(Dbgcmdpath, "Debug=5");
  ondbgintr(SIGUSR1);
  EXPECT_EQ(access(Dbgcmdpath, F_OK), 0);
}

TEST_F(DebugCommand, WhatIsTold) {
  const std::string name(1000, 'n'), value = "-1234567890123456789012";  // 1024 bytes with '='
  for (int level : {-1, 0, 2, 3}) {
    Debug = level;
    EXPECT_EQ(told(name + "=" + value),
              level < 3 ? "" : "kivtrap: " + value + " is an invalid value for " + name + "\n");
    Vflag = 1;
    EXPECT_EQ(told("Vflag=2"), level < 0 ? "" : change("Vflag level", 2));
  }
  // The line begins as any other does at that moment, and goes where they go.
  const std::string path = testing::TempDir() + "/debug_lines";
  char prefix[kMessagePrefixSize];
  Debug = 1;
  dfopen(path.c_str());
  vx_set_progname("Renamed.exe");
  stand_ins::now = 1795036118;
  print_timestamps(1);
  EXPECT_EQ(told("PrintDevInfo=0"), "");
  EXPECT_EQ(lab::read_file(path), print_prefix(prefix) + change("PrintDevInfo", 0).substr(9));
  print_timestamps(0);
  stand_ins::now = 0;
  dfclose();
  remove(path.c_str());
}

TEST_F(DebugCommand, OnlyARegularFileIsTaken) {
  const std::string target = std::string(Dbgcmdpath) + ".target";
  lab::write_file(target, "Debug=3");
  for (const std::string& make : {"ln -s " + target, std::string("mkdir"), std::string("mkfifo")}) {
    EXPECT_EQ(system((make + " " + Dbgcmdpath).c_str()), 0);
    EXPECT_EQ(told(), "") << make;
    EXPECT_TRUE(Debug == 1 && remove(Dbgcmdpath) == 0) << make;
  }
  EXPECT_EQ(lab::read_file(target), "Debug=3");
  remove(target.c_str());
  snprintf(Dbgcmdpath, sizeof Dbgcmdpath, "/proc/self/clear_refs");  // regular, but unreadable
  EXPECT_EQ(told(), "");
}

TEST_F(DebugCommand, TheActionBlocksOthersAndRestartsNothing) {
  struct sigaction action, other = {};
  auto blocked = [](const struct sigaction& by) {
    std::string signals;
    for (int signal = 1; signal < SIGRTMIN; ++signal) {
      if (sigismember(&by.sa_mask, signal) == 1) (signals += sigabbrev_np(signal)) += " ";
    }
    return signals;
  };
  EXPECT_EQ(sigaction(SIGUSR2, nullptr, &action), 0);
  EXPECT_EQ(action.sa_flags & (SA_RESTART | SA_NODEFER | SA_SIGINFO), 0);
  EXPECT_EQ(blocked(action), "HUP INT USR1 USR2 PIPE ALRM TERM CHLD XCPU XFSZ ");
  other.sa_handler = SIG_IGN;
  sigaddset(&other.sa_mask, SIGQUIT);
  EXPECT_EQ(regevent(SIGWINCH, &other), 0);
  EXPECT_EQ(blocked(other), "HUP INT USR1 USR2 PIPE ALRM TERM CHLD XCPU XFSZ WINCH ");
  EXPECT_EQ(regevent(SIGKILL, &other), -1);
  EXPECT_EQ(regevent(SIGUSR2, &other) + regevent_setup(), 0);  // the latter acts once only
  EXPECT_EQ(told("Debug=3"), "");
  EXPECT_EQ(regevent(SIGUSR2, &action), 0);
}

TEST(DebugCheck, WhoWaits) {
  // Asked to, or forced; the program's path; the programs to debug; as which it waits.
  const std::tuple<int, int, const char*, const char*, std::string> cases[] = {
      {1, 0, "/usr/bin/KIVtrap.exe/", "other,kivtrapper", "kivtrap"},
      {1, 0, "kivtrap", "kivtra, kivtrap", ""},
      {1, 0, "b", "a,xb,cB,", ""},
      {1, 0, "a.b.c", "a.B", "a.b"},
      {1, 0, "kivtrap", nullptr, ""},
      {0, 1, "kivtrap", "", "kivtrap"},
      {0, 0, "kivtrap", "kivtrap", ""}};
  const std::string id = " (" + std::to_string(getpid()) + ") ";
  for (const auto& [me, force, path, programs, waits_as] : cases) {
    for (int level : {-1, 0}) {
      Debug_me = me;
      Force_debug = force;
      programs != nullptr ? setenv("KIV_DEBUGPROCS", programs, 1) : unsetenv("KIV_DEBUGPROCS");
      waits_for_debugger = 2;
      std::string line = "kivtrap: " + waits_as + id + "waiting to be debugged\n";
      if (level < 0 || waits_as.empty()) line = "";
      EXPECT_EQ(printed(level, [path = path] { debug_check(path); }), line + line) << path;
      EXPECT_EQ(waits_for_debugger, waits_as.empty() ? 2 : 0) << path;
      EXPECT_EQ(Force_debug, 0);
    }
  }
  Debug_me = waits_for_debugger = 0;
}

}  // namespace

// The debug signal, which changes levels, and the wait for a debugger.
#include "liblocal/startup/dbgsignl.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "liblocal/startup/regevent.h"
#include "tests/machine.h"
#include "tests/work.h"

std::atomic<int> waits_for_debugger;  // after so many waits it is there; 0: waits are real

// What the linker puts in the place of vx_thread_sleep.
extern "C" int32_t __real__Z15vx_thread_sleepj(uint32_t milliseconds);
extern "C" int32_t __wrap__Z15vx_thread_sleepj(uint32_t milliseconds) {
  if (waits_for_debugger == 0) return __real__Z15vx_thread_sleepj(milliseconds);
  EXPECT_EQ(milliseconds, 10000);
  if (--waits_for_debugger == 0) Debug_me = 0;
  return 0;
}

namespace {

namespace fs = std::filesystem;

class DebugSignal : public testing::Test {
 protected:
  void SetUp() override {
    snprintf(Dbgcmdpath, sizeof Dbgcmdpath, "%s/vxdbg.%d", testing::TempDir().c_str(), getpid());
    EXPECT_EQ(regevent_setup(), 0);
  }
  void TearDown() override {
    remove(Dbgcmdpath);
    Vflag = PrintDevInfo = 0;
  }

  // What the process writes at a signal, with `command` in the command file and Debug at `level`.
  std::string lines(const std::string& command, int level = 1) {
    machine::write_file(Dbgcmdpath, command);
    return lines_without_file(level);
  }
  std::string lines_without_file(int level = 1) {
    return printed(level, [this] {
      errno = EBUSY;
      raise(SIGUSR2);
      EXPECT_EQ(errno, EBUSY);
      debug_ = Debug;
    });
  }
  int debug_ = -1;
};

std::string change(const std::string& level, int from, int to) {
  return "kivtrap: Changing " + level + " of process (id " + std::to_string(getpid()) + ") from " +
         std::to_string(from) + " to " + std::to_string(to) + "\n";
}

TEST_F(DebugSignal, SetsDebug) {
  const std::string filler(kDebugCommandLimit, ' ');
  const std::pair<std::string, int> rows[] = {
      {" \t\n dEBUG \t\n=\n 3\n", 3},
      {"Debug=3x4", 3},
      {"Debug=abc", 0},
      {"Debug \n", 0},
      {"Debug=99999999999999999999", INT32_MAX},
      {filler.substr(7) + "Debug=34", 3}};  // its last byte is not read
  for (const auto& [command, value] : rows) {
    EXPECT_EQ(lines(command), change("Debug level", 1, value)) << command;
    EXPECT_EQ(debug_, value) << command;
    EXPECT_FALSE(fs::exists(Dbgcmdpath));
  }
}

TEST_F(DebugSignal, LeavesDebugToOtherCommands) {
  for (const char* command : {"Debug 3", "Debug=", "Debu=3", "Debugger=3", "=3", "", "Debug=-5"}) {
    EXPECT_EQ(lines(command), "") << command;
    EXPECT_EQ(debug_, 1) << command;
  }
  EXPECT_EQ(lines_without_file(), "");
}

TEST_F(DebugSignal, SetsTheOtherLevels) {
  EXPECT_EQ(lines("vflag=7", 0), change("Vflag level", 0, 7));
  EXPECT_EQ(lines("PRINTDEVINFO=8", -1), "");
  EXPECT_EQ(Vflag, 7);
  EXPECT_EQ(PrintDevInfo, 8);
}

TEST_F(DebugSignal, RefusesNegativeValues) {
  const std::string name(1000, 'n'), value = "-1234567890123456789012";  // 1024 bytes with '='
  EXPECT_EQ(lines(name + "=" + value, 2), "");
  EXPECT_EQ(lines(name + "=" + value, 3),
            "kivtrap: " + value + " is an invalid value for " + name + "\n");
}

TEST_F(DebugSignal, TakesOnlyARegularFile) {
  for (const std::string make : {"ln -s /etc/passwd", "mkdir", "mkfifo"}) {
    ASSERT_EQ(system((make + " " + Dbgcmdpath).c_str()), 0);
    EXPECT_EQ(lines_without_file(), "") << make;
    EXPECT_TRUE(fs::remove(Dbgcmdpath)) << make;
  }
}

TEST_F(DebugSignal, BlocksOthersAndRestartsNothing) {
  struct sigaction action;
  ASSERT_EQ(sigaction(SIGUSR2, nullptr, &action), 0);
  EXPECT_EQ(action.sa_flags & (SA_RESTART | SA_NODEFER | SA_SIGINFO), 0);
  std::string blocked;
  for (int signal = 1; signal < SIGRTMIN; ++signal) {
    if (sigismember(&action.sa_mask, signal) == 1)
      blocked += sigabbrev_np(signal) + std::string(" ");
  }
  EXPECT_EQ(blocked, "HUP INT USR1 USR2 PIPE ALRM TERM CHLD XCPU XFSZ ");
}

// The waits of the program `path` for a debugger, which is there after two.
int waits(const char* path, const char* programs) {
  setenv("KIV_DEBUGPROCS", programs, 1);
  waits_for_debugger = 2;
  const std::string text = printed(0, [path] { debug_check(path); });
  return 2 - waits_for_debugger.exchange(0);
}

TEST(DebugCheck, WaitsForListedPrograms) {
  const std::tuple<const char*, const char*, int> rows[] = {
      {"/usr/bin/KIVtrap.exe/", "other,kivtrapper", 2},
      {"a.b.c", "a.B", 2},
      {"kivtrap", "kivtra, kivtrap", 0},
      {"b", "a,xb,cB,", 0}};
  for (const auto& [path, programs, waited] : rows) {
    Debug_me = 1;
    EXPECT_EQ(waits(path, programs), waited) << path;
  }
  Debug_me = 0;
  EXPECT_EQ(waits("kivtrap", "kivtrap"), 0) << "not asked to";
  Force_debug = 1;
  EXPECT_EQ(waits("kivtrap", ""), 2);
  EXPECT_EQ(Force_debug, 0);
}

}  // namespace

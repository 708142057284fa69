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

const std::string kId = std::to_string(getpid());

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

  // What the process writes at a signal, with `command` in the command file, and the value of
  // Debug then, which was `level`.
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
  return "kivtrap: Changing " + level + " of process (id " + kId + ") from " +
         std::to_string(from) + " to " + std::to_string(to) + "\n";
}

TEST_F(DebugSignal, SetsDebug) {
  const std::string filler(kDebugCommandLimit, ' ');
  const std::pair<std::string, int> rows[] = {
      {" \t\n dEBUG \t\n=\n 3\n", 3},
      {"Debug=3x4", 3},
      {"Debug=3" + filler, 3},
      {"Debug=abc", 0},
      {"Debug \n", 0},
      {"Debug=99999999999999999999", INT32_MAX},
      {filler.substr(8) + "Debug=34", 34},
      {filler.substr(7) + "Debug=34", 3}};  // its last byte is not read
  for (const auto& [command, value] : rows) {
    EXPECT_EQ(lines(command), change("Debug level", 1, value)) << command;
    EXPECT_EQ(debug_, value) << command;
    EXPECT_FALSE(fs::exists(Dbgcmdpath));
  }
}

TEST_F(DebugSignal, LeavesDebugToOtherCommands) {
  for (const char* command : {"Debug 3", "Debug=", "Debu=3", "Debugger=3", "=3", "", "Debug=-5",
                              "Debug=-99999999999999999999"}) {
    EXPECT_EQ(lines(command), "") << command;
    EXPECT_EQ(debug_, 1) << command;
    EXPECT_FALSE(fs::exists(Dbgcmdpath));
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
  const std::string target = std::string(Dbgcmdpath) + ".target";
  machine::write_file(target, "Debug=3");
  for (const std::string& make : {"ln -s " + target, std::string("mkdir"), std::string("mkfifo")}) {
    ASSERT_EQ(system((make + " " + Dbgcmdpath).c_str()), 0);
    EXPECT_EQ(lines_without_file(), "") << make;
    EXPECT_TRUE(fs::remove(Dbgcmdpath)) << make;
  }
  EXPECT_EQ(machine::read_file(target), "Debug=3");
  fs::remove(target);
}

TEST_F(DebugSignal, BlocksOthersAndRestartsNothing) {
  struct sigaction action;
  ASSERT_EQ(sigaction(SIGUSR2, nullptr, &action), 0);
  EXPECT_EQ(action.sa_flags & (SA_RESTART | SA_NODEFER | SA_SIGINFO), 0);

  machine::write_file(Dbgcmdpath, "Debug=3");
  sigaddset(&action.sa_mask, SIGQUIT);
  EXPECT_EQ(regevent(SIGWINCH, &action), 0);
  std::string blocked;
  for (int signal = 1; signal < SIGRTMIN; ++signal) {
    if (sigismember(&action.sa_mask, signal) == 1) (blocked += sigabbrev_np(signal)) += " ";
  }
  EXPECT_EQ(blocked, "HUP INT USR1 USR2 PIPE ALRM TERM CHLD XCPU XFSZ WINCH ");
  raise(SIGWINCH);
  EXPECT_TRUE(fs::exists(Dbgcmdpath)) << "only SIGUSR2 is for it";
  EXPECT_EQ(regevent(SIGKILL, &action), -1);
}

// What the program `path` writes while it waits for a debugger, which is there after two waits.
std::string waiting(const char* path, const char* programs, int level = 0) {
  setenv("KIV_DEBUGPROCS", programs, 1);
  waits_for_debugger = 2;
  const std::string lines = printed(level, [path] { debug_check(path); });
  waits_for_debugger = 0;
  return lines;
}

std::string twice(const std::string& name) {
  const std::string line = "kivtrap: " + name + " (" + kId + ") waiting to be debugged\n";
  return line + line;
}

TEST(DebugCheck, WaitsForListedPrograms) {
  const std::tuple<const char*, const char*, std::string> rows[] = {
      {"/usr/bin/KIVtrap.exe/", "other,kivtrapper", "kivtrap"},
      {"a.b.c", "a.B", "a.b"},
      {"kivtrap", "kivtra, kivtrap", ""},
      {"b", "a,xb,cB,", ""}};
  for (const auto& [path, programs, name] : rows) {
    Debug_me = 1;
    EXPECT_EQ(waiting(path, programs), name.empty() ? "" : twice(name)) << path;
  }
  Debug_me = 0;
  EXPECT_EQ(waiting("kivtrap", "kivtrap"), "") << "not asked to";
}

TEST(DebugCheck, WaitsWhenForced) {
  Force_debug = 1;
  EXPECT_EQ(waiting("kivtrap", ""), twice("kivtrap"));
  EXPECT_EQ(Force_debug, 0);
  Force_debug = 1;
  EXPECT_EQ(waiting("kivtrap", "", -1), "");
  EXPECT_EQ(Debug_me, 0) << "by the debugger";
}

}  // namespace

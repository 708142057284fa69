// The debug signal, which changes levels, and the wait for a debugger.
#include "liblocal/startup/dbgsignl.h"

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
    snprintf(Dbgcmdpath, sizeof Dbgcmdpath, "/tmp/vxdbg.%d", getpid());
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
      const int input = dup(0);
      close(0);  // so the command file becomes descriptor 0
      errno = EBUSY;
      raise(SIGUSR2);
      EXPECT_EQ(errno, EBUSY);
      EXPECT_EQ(dup(input), 0) << "closed again";
      close(input);
      debug_ = Debug;
    });
  }
  int debug_ = -1;
};

TEST_F(DebugSignal, SetsDebugByItsCommandAlone) {
  const std::string filler(1024, ' ');
  const std::pair<std::string, int> rows[] = {
      {" \t\n dEBUG \t\n=\n 3\n", 3},
      {"Debug \n", 0},
      {"Debug=99999999999999999999", INT32_MAX},
      {filler.substr(7) + "Debug=34", 3},  // its last byte is not read
      {"Debugger=3", 1},
      {"Debug=-5", 1}};
  for (const auto& [command, value] : rows) {
    const std::string change = "kivtrap: Changing Debug level of process (id " + kId +
                               ") from 1 to " + std::to_string(value) + "\n";
    EXPECT_EQ(lines(command), value == 1 ? "" : change) << command;
    EXPECT_EQ(debug_, value) << command;
    EXPECT_FALSE(fs::exists(Dbgcmdpath));
  }
  EXPECT_EQ(lines_without_file(), "");
  EXPECT_EQ(lines("Debug=-5", 2), "");
  EXPECT_EQ(lines("Debug=-5", 3), "kivtrap: -5 is an invalid value for Debug\n");
}

TEST_F(DebugSignal, SetsTheOtherLevels) {
  EXPECT_EQ(lines("vflag=7", 0),
            "kivtrap: Changing Vflag level of process (id " + kId + ") from 0 to 7\n");
  EXPECT_EQ(lines("PRINTDEVINFO=80", -1), "");
  EXPECT_EQ(Vflag, 7);
  EXPECT_EQ(PrintDevInfo, 80);
}

TEST_F(DebugSignal, TakesOnlyARegularFile) {
  for (const std::string make : {"ln -s /etc/passwd", "mkdir", "mkfifo"}) {
    ASSERT_EQ(system((make + " " + Dbgcmdpath).c_str()), 0);
    EXPECT_EQ(lines_without_file(), "") << make;
    EXPECT_TRUE(fs::remove(Dbgcmdpath)) << make;
  }
}

// What the program `path` writes while it waits for a debugger, which is there after two waits.
std::string waiting(const char* path, const char* programs) {
  setenv("KIV_DEBUGPROCS", programs, 1);
  waits_for_debugger = 2;
  std::string text = printed(0, [path] { debug_check(path); });
  waits_for_debugger = 0;
  return text;
}

TEST(DebugCheck, WaitsForListedPrograms) {
  const std::string line = " (" + kId + ") waiting to be debugged\n";
  const std::tuple<const char*, const char*, std::string> rows[] = {
      {"/usr/bin/KIVtrap.exe/", "other,kivtrapper", "kivtrap"},
      {"kivtrap", "kivtra,xkivtrap,", ""}};
  for (const auto& [path, programs, name] : rows) {
    Debug_me = 1;
    const std::string text = "kivtrap: " + name + line;
    EXPECT_EQ(waiting(path, programs), name.empty() ? "" : text + text);
  }
  Debug_me = 0;
  EXPECT_EQ(waiting("kivtrap", "kivtrap"), "") << "not asked to";
  Force_debug = 1;
  EXPECT_NE(waiting("kivtrap", ""), "");
  EXPECT_EQ(Force_debug, 0);
}

}  // namespace

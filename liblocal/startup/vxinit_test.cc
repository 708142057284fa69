// The start of a program, each time in a process of its own, its environment, and the signal
// that changes its debug levels.
#include "liblocal/startup/vxinit.h"

#include <getopt.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

#include "liblocal/base/c_memory.h"
#include "liblocal/messages/errinfo.h"
#include "liblocal/startup/dbgsignl.h"
#include "liblocal/startup/find_origin.h"
#include "liblocal/startup/regevent.h"
#include "liblocal/startup/vxdirs.h"
#include "liblocal/startup/vxenv.h"
#include "liblocal/startup/vxids.h"
#include "tests/fakes.h"
#include "tests/locales.h"
#include "tests/machine.h"
#include "tests/work.h"

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

namespace fs = std::filesystem;

TEST(Vxinit, Arguments) {
  in_locale("", [] {
    setenv("LC_ALL", "C", 1);  // Latin-1
    // argc, allocations granted, KIV_MAST, and how many arguments are converted.
    const std::tuple<int, int, bool, int> cases[] = {{6, 999, false, 2}, {2, 999, false, 2},
                                                     {1, 999, false, 1}, {0, 999, false, 0},
                                                     {6, 999, true, 0},  {6, 1, false, 1}};
    for (const auto& [argc, memory, mast, converted] : cases) {
      std::string given[] = {"n\xE4me", "\xFC", "\xE4"};
      char* argv[] = {given[0].data(), given[1].data(), nullptr, given[2].data()};
      mast ? setenv("KIV_MAST", "", 1) : unsetenv("KIV_MAST");
      errno = 0;
      (fakes::FailingMalloc(memory), _vxinit("kiv", argc, argv));
      EXPECT_TRUE(argv[3] == given[2].data() && (errno == ENOMEM) == (memory == 1));
      EXPECT_STREQ(argv[0], converted > 0 ? "näme" : "n\xE4me") << argc;
      EXPECT_STREQ(argv[1], converted > 1 ? "ü" : "\xFC") << argc;
      for (int i = 0; i < converted; ++i) free(argv[i]);
    }
    _vxinit("kiv", 1, nullptr);
  });
}

using VxinitOnItsMachine = MachineTest;

void make_program(const std::string& directory) {
  fs::create_directories(directory);
  machine::write_file(directory + "/program", "");
}

TEST_F(VxinitOnItsMachine, OfEveryApplication) {
  make_program("/start/bin");
  const std::tuple<const char*, std::string, std::string, std::string, std::string> cases[] = {
      {"kiv", "/start/bin/program", "/start", "/kiv", "/kiv/tmp/vxdbg.tmp"},
      {"qmo", "/start/bin/program", "/start", "/start", "/start/bin/vxdbg.tmp"},
      {"tarn", "/start/bin/program", "/start", "/start", "/start/tmp/vxdbg.tmp"},
      {"qmo", "/start/nowhere", "-", "/qmo", "null/vxdbg.tmp"},
      {nullptr, "/start/bin/program", "/start", "-", "null/vxdbg.tmp"}};
  const std::pair<const char* (*)(), const char*> getters[] = {
      {vx_get_applogsdir, "applogs"}, {vx_get_coresdir, "cores"}, {vx_get_debugdir, "debug"},
      {vx_get_etcdir, "etc"},         {vx_get_glsdir, "gls"},     {vx_get_indexdir, "index"},
      {vx_get_libdir, "lib"},         {vx_get_logsdir, "logs"},   {vx_get_mmdir, "mm"},
      {vx_get_moddir, "mod"},         {vx_get_rapdir, "rap"},     {vx_get_resdir, "res"},
      {vx_get_tmpdir, "tmp"}};
  auto text = [](const char* path) { return std::string(path != nullptr ? path : "-"); };
  auto in = [](const std::string& at, auto name) { return at == "-" ? at : at + "/" + name; };
  for (const auto& each : cases) {
    in_locale("", [&] {
      const auto& [name, argv0, installed, application, command] = each;
      EXPECT_TRUE(vxinit_done() == 0 && vx_get_bindir() == nullptr && vx_get_argv0() == nullptr);
      std::string copy = argv0;
      char* argv[] = {copy.data()};
      setenv("KIV_PRINT_ORIGIN", "1", 1);
      setenv("LC_ALL", "C.UTF-8", 1);
      opterr = 1;
      EXPECT_EQ(printed(-1, [&, name = name] { _vxinit(name, 1, argv); }), "");
      copy = "Program.x";
      EXPECT_TRUE(vxinit_done() == 1 && opterr == 0);
      raise(SIGUSR2);  // which has its handler
      EXPECT_EQ(vx_get_argv0() + std::string(" ") + Dbgcmdpath, argv0 + " " + command);
      EXPECT_EQ(text(vx_get_installdir()), installed);
      EXPECT_EQ(text(vx_get_bindir()), in(installed, "bin"));
      EXPECT_EQ(text(find_appdir("other")), application);
      for (const auto& [get, directory] : getters) {
        EXPECT_TRUE(text(get()) == in(application, directory) && get() == get()) << directory;
      }
      EXPECT_EQ(vx_get_securedir(), (application == "-" ? "." : application + "/tmp") + "/sec");
      EXPECT_EQ(text(find_origin(nullptr)), in(installed, "bin/"));
      EXPECT_EQ(vx_find_installdir(nullptr), nullptr);
      EXPECT_EQ(vx_find_installdir("/no/program"), vx_get_installdir());
      EXPECT_EQ(fakes::pieces_left_by([] { vx_set_argv0("/no/program"); }), 0);
      EXPECT_STREQ(vx_get_argv0(), "/no/program");

      setenv("LC_ALL", "C", 1);  // what comes once has come
      opterr = Force_debug = waits_for_debugger = 1;
      EXPECT_EQ(printed(0, [&] { _vxinit("other", 1, argv); }),
                "kivtrap: program (" + std::to_string(getpid()) + ") waiting to be debugged\n");
      EXPECT_STREQ(setlocale(LC_ALL, nullptr), "C.UTF-8");
      EXPECT_TRUE(opterr == 0 && vx_get_argv0() == std::string("/no/program"));
    });
  }
}

TEST_F(VxinitOnItsMachine, DirectoriesInOtherOrders) {
  make_program("/start/bin");
  in_locale("", [] {  // a getter comes before the name
    EXPECT_TRUE(vx_get_etcdir() == nullptr && find_appdir("kiv") == nullptr);
  });
  in_locale("", [] {  // the name comes before the installation directory
    EXPECT_STREQ(find_appdir("tarn"), "/tarn");
    EXPECT_STREQ(vx_find_installdir("/start/bin/program"), "/start");
    EXPECT_STREQ(find_appdir(nullptr), "/start");
  });
  in_locale("", [] {  // of a long name of the executable's directory 1023 bytes count
    std::string path = "/start";
    for (int i = 0; i < 12; ++i) path += "/" + std::string(100, 'n');
    make_program(path);
    fs::current_path(path);
    EXPECT_STREQ(vx_find_installdir("./program"), path.substr(0, path.rfind('/', 1022)).c_str());
  });
}

TEST_F(VxinitOnItsMachine, SwitchesBetweenUserAndRoot) {
  if (!machine::has_users()) return skip("no users but root here");
  setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // which may not look at a process of several ids
  // Whether the ids are told, and what.
  const std::tuple<uid_t, uid_t, bool, const char*> cases[] = {
      {1000, 0, true,
       "nonp new uid 0 euid 1000\n=0,1000\np saved uid 1000 euid 0, current uid 0 euid 1000\n"
       "p new uid 0 euid 0\n=0,0\nnonp saved uid 1000 euid 0, current uid 0 euid 0\n=0,0\n"
       "=0,1000\n"},
      {1000, 0, false, "=0,1000\n=0,0\n=0,0\n=0,1000\n"},
      // who cannot give up rights for good, nor take those of root
      {1000, 2000, false, "=1000,2000\n=1000,2000\n=1000,2000\n=1000,2000\n"},
      {1000, 1000, false, "=1000,1000\n=1000,1000\n=1000,1000\n=1000,1000\n"},
      {0, 1000, false, "=0,0\n=0,0\n=0,0\n=0,0\n"},
  };
  for (const auto& each : cases) {
    in_locale("", [&each] {
      const auto& [real, effective, tells, told] = each;
      vx_set_progname("kivtrap");
      const std::string log = "/ids." + std::to_string(getpid());  // of the test machine alone
      dfopen(log.c_str());
      if (tells) setenv("KIV_PRINT_UIDS", "", 1);
      EXPECT_EQ(setregid(1001, 1002) + setreuid(real, effective), 0);
      void (*const steps[])() = {[] { vxinit("kiv"); },  // gives up what is not the user's
                                 set_privileged, set_nonprivileged, set_nonprivileged};
      const int levels[] = {0, 1, 1, -1};
      for (int step = 0; step < 4; ++step) {
        Debug = levels[step];
        set_vxinit_uid_flag(step != 2 ? 1 : 0);
        steps[step]();
        debugprintf("=%d,%d\n", static_cast<int>(getuid()), static_cast<int>(geteuid()));
      }
      const std::regex known("kivtrap: |set_|rivileged:");
      EXPECT_EQ(std::regex_replace(machine::read_file(log), known, ""), told);
      uid_t ids[4] = {};
      get_saved_uids(&ids[0], &ids[1]);
      get_saved_gids(&ids[2], &ids[3]);
      EXPECT_THAT(ids, testing::ElementsAre(real, effective, 1001, 1002));
      EXPECT_EQ(seteuid(getuid()), 0);  // so that counts of coverage can be written
    });
  }
}

constexpr char kName[] = "KIV_ENV_TEST";

// In the plain locale, where every byte is a Latin-1 character.
TEST(Vxenv, ConvertsAllButAscii) {
  static char plain[] = "KIV_ENV_TEST=a=b:\x7F";
  EXPECT_EQ(vxputenv(plain) + vxputenv(nullptr), 0);
  EXPECT_TRUE(getenv(kName) == plain + sizeof kName && vxgetenv(kName) == plain + sizeof kName);
  unsetenv(kName);
  EXPECT_EQ(vxgetenv(kName), nullptr);
  for (const std::string& ascii : {std::string("caf"), std::string(20000, 'x')}) {
    setenv(kName, (ascii + "\xE9").c_str(), 1);
    c_unique_ptr<char> value(const_cast<char*>(vxgetenv(kName)));
    EXPECT_EQ(value.get(), (ascii + "\xC3\xA9").substr(0, 18431));
    std::string text = "KIV_ENV_TEST=" + ascii + "\xC3\xA9";
    EXPECT_EQ(vxputenv(text.data()), 0);
    c_unique_ptr<char> area(getenv(kName) - sizeof kName);
    EXPECT_EQ(getenv(kName), (ascii + "\xE9").substr(0, 18431 - sizeof kName));
    unsetenv(kName);  // which lets go of it
  }
  brix_strerror(ENOMEM);  // has what it needs once before memory is gone
  setenv(kName, "\xE9", 1);
  static char text[] = "KIV_ENV_TEST=\xC3\xBC";
  const std::string told = "kivtrap: Cannot allocate memory\n";
  auto refused = [] {
    EXPECT_TRUE((fakes::FailingMalloc(0, 1), vxgetenv(kName)) == nullptr && errno == ENOMEM);
    errno = 0;
    EXPECT_TRUE((fakes::FailingMalloc(0, 1), vxputenv(text)) == -1 && errno == ENOMEM);
  };
  EXPECT_EQ(printed(0, refused), told + told);
  EXPECT_STREQ(getenv(kName), "\xE9");
}

// In EUC-JP, where these bytes are no characters: '?' is all that is left of them.
TEST(Vxenv, KeepsNoCopyOfTheOldValue) {
  in_locale("EUC-JP", [] {
    auto prepend = [] {
      setenv(kName, "\xFF\xFF", 1);
      EXPECT_EQ(add_to_environment(kName, "new", 1), 1);
      EXPECT_STREQ(getenv(kName), "new:??");
    };
    EXPECT_EQ(fakes::pieces_left_by(prepend), 0);
    EXPECT_EQ((fakes::FailingMalloc(2, 1), add_to_environment(kName, "\xC3\xA9", 0)), 0)
        << "converted";
  });
}

TEST(Vxenv, AddsToTheEnvironment) {
  const std::tuple<const char*, int, const char*> cases[] = {
      {"first", 1, "first"}, {"second", 1, "second:first"},  {"third", 0, "third"},
      {"", 1, ":third"},     {"fourth", 2, "fourth::third"}, {"third", 0, "third"}};
  unsetenv(kName);
  const char* third = nullptr;
  for (const auto& [value, prepend, wanted] : cases) {
    EXPECT_EQ(add_to_environment(kName, value, prepend), 1);
    EXPECT_STREQ(getenv(kName), wanted);
    if (prepend == 0 && third == nullptr) third = getenv(kName);
  }
  EXPECT_EQ(getenv(kName), third) << "equal texts share one copy";
  EXPECT_EQ(add_to_environment(nullptr, "x", 0) + add_to_environment(kName, nullptr, 0), 0);
  fakes::FailingMalloc none(0);
  EXPECT_EQ(add_to_environment(kName, "more", 1), 0);
  EXPECT_STREQ(getenv(kName), "third");
}

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
    if (text) machine::write_file(Dbgcmdpath, *text);
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
  const std::string filler(1024, ' ');
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
  machine::write_file(Dbgcmdpath, "Debug=5");
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
  dfopen(path.c_str());
  vx_set_progname("Renamed.exe");
  EXPECT_EQ(told("PrintDevInfo=0"), "");
  const std::string line = change("PrintDevInfo", 0).substr(7);
  EXPECT_THAT(machine::read_file(path), testing::EndsWith("renamed" + line));
  dfclose();
  remove(path.c_str());
}

TEST_F(DebugCommand, OnlyARegularFileIsTaken) {
  const std::string target = std::string(Dbgcmdpath) + ".target";
  machine::write_file(target, "Debug=3");
  for (const std::string& make : {"ln -s " + target, std::string("mkdir"), std::string("mkfifo")}) {
    EXPECT_EQ(system((make + " " + Dbgcmdpath).c_str()), 0);
    EXPECT_EQ(told(), "") << make;
    EXPECT_TRUE(Debug == 1 && remove(Dbgcmdpath) == 0) << make;
  }
  EXPECT_EQ(machine::read_file(target), "Debug=3");
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
  // Asked to, or forced; level; the program's path; the programs to debug; as which it waits.
  const std::tuple<int, int, int, const char*, const char*, std::string> cases[] = {
      {1, 0, 0, "/usr/bin/KIVtrap.exe/", "other,kivtrapper", "kivtrap"},
      {1, 0, 0, "kivtrap", "kivtra, kivtrap", ""},
      {1, 0, 0, "b", "a,xb,cB,", ""},
      {1, 0, 0, "a.b.c", "a.B", "a.b"},
      {1, 0, 0, "kivtrap", nullptr, ""},
      {0, 1, -1, "kivtrap", "", "kivtrap"},
      {0, 0, 0, "kivtrap", "kivtrap", ""}};
  for (const auto& [me, force, level, path, programs, waits_as] : cases) {
    Debug_me = me;
    Force_debug = force;
    programs != nullptr ? setenv("KIV_DEBUGPROCS", programs, 1) : unsetenv("KIV_DEBUGPROCS");
    waits_for_debugger = 2;
    const std::string id = " (" + std::to_string(getpid()) + ") ";
    std::string line = "kivtrap: " + waits_as + id + "waiting to be debugged\n";
    if (level < 0 || waits_as.empty()) line = "";
    EXPECT_EQ(printed(level, [path = path] { debug_check(path); }), line + line) << path;
    EXPECT_TRUE(waits_for_debugger == (waits_as.empty() ? 2 : 0) && Force_debug == 0) << path;
  }
  Debug_me = waits_for_debugger = 0;
}

}  // namespace

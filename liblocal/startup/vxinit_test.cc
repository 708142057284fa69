// The environment in UTF-8 where the plain locale is Latin-1, and the start of a program.
#include "liblocal/startup/vxinit.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "liblocal/base/c_memory.h"
#include "liblocal/messages/errinfo.h"
#include "liblocal/startup/dbgsignl.h"
#include "liblocal/startup/find_origin.h"
#include "liblocal/startup/vxdirs.h"
#include "liblocal/startup/vxenv.h"
#include "liblocal/startup/vxids.h"
#include "tests/fakes.h"
#include "tests/locales.h"
#include "tests/work.h"

extern std::atomic<int> waits_for_debugger;  // dbgsignl_test.cc

using namespace fakes;

namespace {

namespace fs = std::filesystem;

constexpr char kName[] = "KIV_ENV_TEST";

TEST(Vxenv, ConvertsAndCutsOtherTexts) {
  for (const std::string& ascii : {std::string("caf"), std::string(20000, 'x')}) {
    setenv(kName, (ascii + "\xE9").c_str(), 1);
    const c_unique_ptr<char> value(const_cast<char*>(vxgetenv(kName)));
    EXPECT_EQ(value.get(), (ascii + "é").substr(0, 18431));
    std::string text = "KIV_ENV_TEST=" + ascii + "é";
    EXPECT_EQ(vxputenv(text.data()), 0);
    const c_unique_ptr<char> area(getenv(kName) - sizeof kName);
    EXPECT_EQ(getenv(kName), (ascii + "\xE9").substr(0, 18431 - sizeof kName));
    unsetenv(kName);  // before it is freed
  }
}

TEST(Vxenv, SaysThatThereIsNoMemory) {
  brix_strerror(ENOMEM);  // allocates what the thread keeps
  setenv(kName, "\x80", 1);
  auto get = [] {
    const FailingMalloc failing(0, 1);
    EXPECT_EQ(vxgetenv(kName), nullptr);
  };
  EXPECT_EQ(printed(0, get), "kivtrap: Cannot allocate memory\n");
}

TEST(AddToEnvironment, ReplacesOrPrepends) {
  auto add = [] {
    setenv(kName, "\xE9", 1);
    EXPECT_EQ(add_to_environment(kName, "first", 0), 1);
    EXPECT_STREQ(getenv(kName), "first");
    setenv(kName, "old", 1);
    EXPECT_EQ(add_to_environment(kName, "first", 1), 1);
    EXPECT_STREQ(getenv(kName), "first:old");
  };
  EXPECT_EQ(pieces_left_by(add), 0) << "equal texts share one copy";
  for (int granted : {0, 2}) {  // the third allocation is the converted text
    const FailingMalloc failing(granted, 1);
    EXPECT_EQ(add_to_environment(kName, "é", 0), 0);
  }
  EXPECT_EQ(add_to_environment(kName, nullptr, 0), 0);
  EXPECT_EQ(vxputenv(nullptr), 0);
  EXPECT_STREQ(getenv(kName), "first:old");
}

// How many of two arguments in Latin-1 a start converts.
int converted(int argc, int allocations = 999) {
  char texts[][2] = {"\xE4", "\xE4"};
  char* argv[] = {texts[0], texts[1], nullptr};
  {
    const FailingMalloc failing(allocations);
    _vxinit("kiv", argc, argv);
  }
  int count = 0;
  for (int i = 0; i < 2; ++i) {
    if (argv[i] == texts[i]) continue;
    EXPECT_STREQ(argv[i], "ä");
    free(argv[i]);
    ++count;
  }
  return count;
}

TEST(Vxinit, ConvertsArguments) {
  in_locale("", [] {
    setenv("LC_ALL", "C", 1);
    EXPECT_EQ(converted(9), 2);
    EXPECT_EQ(converted(1), 1);
    EXPECT_EQ(converted(2, 1), 1) << "without memory";
    setenv("KIV_MAST", "", 1);
    EXPECT_EQ(converted(2), 0);
    _vxinit("kiv", 1, nullptr);
  });
}

// A test on the test machine, where these programs are.
class VxinitOnItsMachine : public MachineTest {
 protected:
  void SetUp() override {
    MachineTest::SetUp();
    if (IsSkipped()) return;
    for (const std::string directory : {"/start/bin", "/st\xEDrt/bin"}) {
      fs::create_directories(directory);
      machine::write_file(directory + "/program", "");
    }
  }
  static void start(const char* application, std::string program = "/start/./bin/program") {
    char* argv[] = {program.data()};
    _vxinit(application, 1, argv);
    if (argv[0] != program.data()) free(argv[0]);  // converted
  }
};

TEST_F(VxinitOnItsMachine, DoesMostThingsOnce) {
  in_locale("", [] {
    setenv("LC_ALL", "C.UTF-8", 1);
    start("kiv");
    EXPECT_EQ(vxinit_done(), 1);
    raise(SIGUSR2);  // which has its handler

    setenv("LC_ALL", "C", 1);
    opterr = Force_debug = waits_for_debugger = 1;
    EXPECT_EQ(printed(0, [] { start("other"); }),
              "kivtrap: program (" + std::to_string(getpid()) + ") waiting to be debugged\n");
    EXPECT_EQ(opterr, 0);
    EXPECT_STREQ(setlocale(LC_ALL, nullptr), "C.UTF-8");
    EXPECT_STREQ(vx_get_argv0(), "/start/./bin/program");
  });
}

TEST_F(VxinitOnItsMachine, FindsDirectories) {
  struct Row {
    const char *application, *directory, *debug_command_file;
  };
  const Row rows[] = {{"kiv", "/kiv", "/kiv/tmp/vxdbg.tmp"},
                      {"qmo", "/stírt", "/stírt/bin/vxdbg.tmp"},
                      {"tarn", "/stírt", "/stírt/tmp/vxdbg.tmp"},
                      {nullptr, nullptr, "null/vxdbg.tmp"}};
  for (const Row& row : rows) {
    in_locale("", [&row] {
      setenv("LC_ALL", "C", 1);
      start(row.application, "/st\xEDrt/bin/program");
      EXPECT_STREQ(vx_get_bindir(), "/stírt/bin");
      EXPECT_STREQ(find_appdir("other"), row.directory);
      EXPECT_STREQ(Dbgcmdpath, row.debug_command_file);
    });
  }
}

TEST_F(VxinitOnItsMachine, KeepsTheInstallationDirectory) {
  in_locale("", [] {
    EXPECT_EQ(vx_get_bindir(), nullptr);
    EXPECT_EQ(find_origin(nullptr), nullptr);
    EXPECT_EQ(find_origin("/no"), nullptr);
    EXPECT_EQ(vx_find_installdir(nullptr), nullptr);
    start("kiv");
    EXPECT_STREQ(vx_get_securedir(), "/kiv/tmp/sec");
    EXPECT_STREQ(vx_find_installdir("/no/program"), "/start");
    EXPECT_STREQ(find_origin("/no/program"), "/start/bin/");
    EXPECT_STREQ(vx_get_argv0(), "/no/program");
    EXPECT_EQ(pieces_left_by([] { vx_set_argv0("other"); }), 0);
  });
}

TEST(FindOrigin, RefusesLongNamesAndHardLinks) {
  const std::string name(1024, '/');
  EXPECT_EXIT((void)find_origin(name.c_str()), testing::ExitedWithCode(111), "^$");
  EXPECT_EXIT((void)find_origin("/proc"), testing::ExitedWithCode(1),
              ": unable to execute with hard links to binary /proc\n$");
}

class VxidsOnItsMachine : public MachineTest {
 protected:
  void SetUp() override {
    MachineTest::SetUp();
    if (!IsSkipped() && !machine::has_users()) skip("no users but root here");
  }
  // Runs `body` in a process that these users start.
  static void as_users(uid_t real, uid_t effective, const std::function<void()>& body) {
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // not possible in a process of several users
    in_locale("", [&] {
      EXPECT_EQ(setregid(1001, 1002), 0);
      EXPECT_EQ(setreuid(real, effective), 0);
      body();
      EXPECT_EQ(seteuid(getuid()), 0);  // so that counts of coverage can be written
    });
  }
};

TEST_F(VxidsOnItsMachine, SwitchBetweenUserAndRoot) {
  setenv("KIV_PRINT_UIDS", "", 1);
  as_users(1000, 0, [] {
    const std::string lines = printed(0, [] {
      vxinit("kiv");
      set_vxinit_uid_flag(0);
      set_nonprivileged();
      Debug = 1;
      set_privileged();
      set_vxinit_uid_flag(1);
      set_nonprivileged();
      Debug = -1;
      set_privileged();
    });
    EXPECT_EQ(lines,
              "kivtrap: set_nonprivileged: new uid 0 euid 1000\n"
              "kivtrap: set_privileged: saved uid 1000 euid 0, current uid 0 euid 1000\n"
              "kivtrap: set_privileged: new uid 0 euid 0\n"
              "kivtrap: set_nonprivileged: saved uid 1000 euid 0, current uid 0 euid 0\n"
              "kivtrap: set_nonprivileged: new uid 0 euid 1000\n");
    uid_t ids[4] = {9, 9, 9, 9};
    get_saved_uids(&ids[0], &ids[1]);
    get_saved_gids(&ids[2], &ids[3]);
    EXPECT_THAT(ids, testing::ElementsAre(1000, 0, 1001, 1002));
  });
  unsetenv("KIV_PRINT_UIDS");
}

}  // namespace

// The start of a program, each time in a process of its own, and its environment.
#include "liblocal/startup/vxinit.h"

#include <getopt.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <set>

#include "liblocal/messages/errinfo.h"
#include "liblocal/messages/print.h"
#include "liblocal/startup/dbgsignl.h"
#include "liblocal/startup/find_origin.h"
#include "liblocal/startup/vxdirs.h"
#include "liblocal/startup/vxenv.h"
#include "liblocal/startup/vxids.h"
#include "liblocal/threads/c_memory.h"
#include "tests/failing_malloc.h"
#include "tests/lab.h"
#include "tests/locales.h"
#include "tests/printed.h"

extern std::atomic<int> waits_for_debugger;  // of dbgsignl_test.cc

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
      (FailingMalloc(memory), _vxinit("kiv", argc, argv));
      EXPECT_TRUE(argv[3] == given[2].data() && (errno == ENOMEM) == (memory == 1));
      EXPECT_STREQ(argv[0], converted > 0 ? "näme" : "n\xE4me") << argc;
      EXPECT_STREQ(argv[1], converted > 1 ? "ü" : "\xFC") << argc;
      for (int i = 0; i < converted; ++i) free(argv[i]);
    }
  });
}

using VxinitInTheLab = LabTest;

void make_program(const std::string& directory) {
  fs::create_directories(directory);
  lab::write_file(directory + "/program", "");
}

TEST_F(VxinitInTheLab, OfEveryApplication) {
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
      EXPECT_EQ(vx_get_securedir(), vx_get_securedir());

      EXPECT_EQ(text(find_origin(nullptr)), installed == "-" ? installed : "/start/bin/");
      EXPECT_EQ(vx_find_installdir(nullptr), nullptr);
      EXPECT_EQ(vx_find_installdir("/no/program"), vx_get_installdir());
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

TEST_F(VxinitInTheLab, DirectoriesInOtherOrders) {
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

TEST_F(VxinitInTheLab, SwitchesBetweenUserAndRoot) {
  if (!lab::has_users()) return skip("no users but root here");
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
      const std::string log = "/ids." + std::to_string(getpid());  // of the lab alone
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
      EXPECT_EQ(std::regex_replace(lab::read_file(log), known, ""), told);
      uid_t ids[4] = {};
      get_saved_uids(&ids[0], nullptr);
      get_saved_uids(nullptr, &ids[1]);
      get_saved_gids(&ids[2], &ids[3]);
      EXPECT_THAT(ids, testing::ElementsAre(real, effective, 1001, 1002));
      EXPECT_EQ(seteuid(getuid()), 0);  // so that counts of coverage can be written
    });
  }
}

constexpr char kName[] = "KIV_ENV_TEST";

TEST(Vxenv, AsciiPassesAsItIs) {
  static char text[] = "KIV_ENV_TEST=a=b:\x7F";
  EXPECT_EQ(vxputenv(text) + vxputenv(nullptr), 0);
  EXPECT_TRUE(getenv(kName) == text + sizeof kName && vxgetenv(kName) == text + sizeof kName);
  unsetenv(kName);
  EXPECT_EQ(vxgetenv(kName), nullptr);
}

// In the plain locale, where every byte is a Latin-1 character.
TEST(Vxenv, ConvertsOtherTexts) {
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
    EXPECT_TRUE((FailingMalloc(0, 1), vxgetenv(kName)) == nullptr && errno == ENOMEM);
    errno = 0;
    EXPECT_TRUE((FailingMalloc(0, 1), vxputenv(text)) == -1 && errno == ENOMEM);
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
    EXPECT_EQ(pieces_left_by(prepend), 0);
  });
}

TEST(Vxenv, AddsToTheEnvironment) {
  const std::tuple<const char*, int, const char*> cases[] = {
      {"first", 1, "first"}, {"second", 1, "second:first"},  {"third", 0, "third"},
      {"", 1, ":third"},     {"fourth", 2, "fourth::third"}, {"third", 0, "third"}};
  unsetenv(kName);
  std::set<const char*> thirds;
  for (const auto& [value, prepend, wanted] : cases) {
    EXPECT_EQ(add_to_environment(kName, value, prepend), 1);
    EXPECT_STREQ(getenv(kName), wanted);
    if (prepend == 0) thirds.insert(getenv(kName));
  }
  EXPECT_EQ(thirds.size(), 1) << "equal texts share one copy";
  EXPECT_EQ(add_to_environment(nullptr, "x", 0) + add_to_environment(kName, nullptr, 0), 0);
  FailingMalloc none(0);
  EXPECT_EQ(add_to_environment(kName, "more", 1), 0);
  EXPECT_STREQ(getenv(kName), "third");
}

}  // namespace

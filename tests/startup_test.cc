// The start of the command as a process: where it finds itself, whose rights it
// takes, and what becomes of its arguments.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/lab.h"
#include "tests/rpc_server.h"

namespace {

namespace fs = std::filesystem;

using lab::Outcome;

constexpr char kUsage[] =
    "usage: kivtrap [-c community] [-t trap_type] [-s specific_trap] [-v] management_station\n";

// Copies a program into a new directory of the lab. Valgrind, which would put its own
// words and rights in the place of the test's, leaves what is in /startup alone.
void install(const char* program, const fs::path& place) {
  fs::create_directories(place.parent_path());
  fs::copy_file(program, place, fs::copy_options::overwrite_existing);
}

// What a program started as `argv0` writes when it shows its origin.
std::string origin_line(const std::string& argv0, const std::string& origin) {
  return fs::path(argv0).filename().string() + ": origin for `" + argv0 + "' is `" + origin + "'\n";
}

std::string hard_link_line(const std::string& argv0, const std::string& file) {
  return fs::path(argv0).filename().string() + ": unable to execute with hard links to binary " +
         file + "\n";
}

class StartupTest : public LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    station.emplace(uint16_t{162});
    mappers.emplace();
    fs::remove_all("/startup");
    install(KIVTRAP, "/startup/bin/kivtrap");
    install(PROBE, "/startup/bin/startup_probe");
  }

  // Copies a program so that it runs with the rights of `owner`.
  static void install_set_user_id(const char* program, const fs::path& place, unsigned owner) {
    install(program, place);
    ASSERT_EQ(chown(place.c_str(), owner, 0), 0);
    ASSERT_EQ(chmod(place.c_str(), 04755), 0);
  }

  static lab::Command command(const std::string& file, std::vector<std::string> words,
                              std::vector<std::string> environment = {}) {
    lab::Command made;
    made.file = file;
    made.words = std::move(words);
    made.environment = std::move(environment);
    made.input = "disk full\n";
    return made;
  }

  // As `command`, by a user without rights. No leak checker may look into a
  // set-user-id program.
  static lab::Command users_command(const std::string& file, std::vector<std::string> words,
                                    std::vector<std::string> environment = {}) {
    environment.push_back("ASAN_OPTIONS=detect_leaks=0");
    lab::Command made = command(file, std::move(words), std::move(environment));
    made.user = lab::kUser;
    return made;
  }

  std::optional<lab::UdpReceiver> station;
  std::optional<lab::EmptyPortMappers> mappers;
};

TEST_F(StartupTest, Origin) {
  const std::string program = "/startup/bin/kivtrap";
  fs::create_symlink("bin/kivtrap", "/startup/link");
  fs::create_directories("/startup/directory/kivtrap");
  fs::create_directories("/startup/plain");
  lab::write_file("/startup/plain/kivtrap", "");
  fs::current_path("/startup/bin");
  const std::string found = "/startup/bin/", none;
  auto directory = [](size_t length) { return "/startup" + std::string(length - 11, '/') + "bin"; };
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"/startup/bin/kivtrap", "PATH=/nowhere", found},
      {"/startup/../startup/bin/kivtrap", "PATH=", found},
      {"./kivtrap", "PATH=", found},
      {"/startup/link", "PATH=", found},
      {"/startup/bin/nowhere", "PATH=/startup/bin", none},
      {"kivtrap", "PATH=/nowhere:/startup/plain:/startup/directory:/startup/bin:/x", found},
      {"kivtrap", "PATH=/nowhere::", none},
      {"kivtrap", "PATH", found},  // unset
      {"kivtrap", "PATH=" + directory(1015), found},
      {"kivtrap", "PATH=" + directory(1016), none},
      {"kivtrap", "PATH=" + directory(1016) + ":/startup/bin", found},
      {std::string(1023, 'k'), "PATH=/startup/bin", none},
  };
  for (const auto& [argv0, path, wanted] : cases) {
    SCOPED_TRACE(testing::Message() << argv0 << " " << path);
    Outcome outcome = lab::run(command(program, {argv0}, {path, "KIV_PRINT_ORIGIN=quit"}));
    EXPECT_EQ(outcome.status, wanted == none ? 1 : 0);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err.substr(0, wanted == none ? 7 : std::string::npos),
              wanted == none ? "usage: " : origin_line(argv0, wanted));
  }
  fs::current_path("/");

  Outcome too_long = lab::run(command(program, {std::string(1024, 'k')}));
  EXPECT_EQ(too_long.status, 111);
  EXPECT_EQ(too_long.out + too_long.err, "");
  for (const char* wish : {"KIV_PRINT_ORIGIN=", "KIV_PRINT_ORIGIN=1"}) {
    Outcome outcome = lab::run(command(program, {program}, {wish}));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, origin_line(program, found).append(kUsage));
  }
}

TEST_F(StartupTest, RefusesHardLinks) {
  const std::string program = "/startup/bin/kivtrap";
  fs::create_hard_link(program, "/startup/other");
  fs::create_symlink("other", "/startup/link");
  for (auto [path, named] :
       {std::pair{program.c_str(), program.c_str()}, {"/startup/link", "/startup/other"}}) {
    Outcome outcome = lab::run(command(program, {path, "manager"}));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out + outcome.err, hard_link_line(path, named));
  }
  EXPECT_FALSE(station->receive_now());
  fs::remove("/startup/other");
  EXPECT_EQ(lab::run(command(program, {program, "manager"})).status, 0);
  EXPECT_TRUE(station->receive_now());
}

TEST_F(StartupTest, Directories) {
  const struct {
    std::string name, argv0, home, application, bin, command;
  } cases[] = {
      {"kiv", "/startup/bin/startup_probe", "/startup", "/kiv", "/startup/bin", "/kiv/tmp"},
      {"qmo", "startup_probe", "/startup", "/startup", "/startup/bin", "/startup/bin"},
      {"tarn", "startup_probe", "/startup", "/startup", "/startup/bin", "/startup/tmp"},
      {"qmo", "nowhere", "(none)", "/qmo", "(none)", ""},
      // the first name to be given is the later "other"
      {"-", "startup_probe", "/startup", "/other", "/startup/bin", ""},
  };
  for (const auto& [name, argv0, home, application, bin, command_directory] : cases) {
    Outcome outcome =
        lab::run(command("/startup/bin/startup_probe", {argv0, name}, {"PATH=/startup/bin"}));
    EXPECT_EQ(outcome.status, 0);
    std::string wanted =
        "before=0\nafter=1\ninstalldir=" + home + "\nappdir=" + application + "\nbindir=" + bin;
    for (const char* each : {"tmpdir=/tmp", "moddir=/mod", "securedir=/tmp/sec"}) {
      wanted += "\n" + std::string(each).insert(std::string(each).find('/'), application);
    }
    wanted += "\ncommand=" + command_directory;
    if (!command_directory.empty()) wanted += "/vxdbg.tmp";
    EXPECT_EQ(outcome.out.substr(0, outcome.out.find("\nstarted=")), wanted) << name;
  }
}

TEST_F(StartupTest, RightsOfASetUserIdStart) {
  if (!lab::has_users()) return skip("no users but root here");
  const std::string program = "/startup/setuid/bin/startup_probe";
  const std::string dropped = "startup_probe: set_nonprivileged: new uid ";
  const std::tuple<unsigned, const char*, std::string> cases[] = {
      {0,
       "started=0,1000,1000\nprivileged=0,0,1000\nkept=0,0,1000\ndropped=0,1000,1000\n"
       "saved=1000,0\ngroups=1000,1000\n",
       dropped + "0 euid 1000\nstartup_probe: set_privileged: new uid 0 euid 0\n" + dropped +
           "0 euid 1000\n"},
      {2000,  // cannot give its rights up for good, nor take those of root
       "started=1000,2000,2000\nprivileged=1000,2000,2000\nkept=1000,2000,2000\n"
       "dropped=1000,2000,2000\nsaved=1000,2000\ngroups=1000,1000\n",
       dropped + "1000 euid 2000\n" + dropped + "1000 euid 2000\n"},
      {lab::kUser,
       "started=1000,1000,1000\nprivileged=1000,1000,1000\nkept=1000,1000,1000\n"
       "dropped=1000,1000,1000\nsaved=1000,1000\ngroups=1000,1000\n",
       ""},
  };
  for (const auto& [owner, ids, told] : cases) {
    SCOPED_TRACE(owner);
    install_set_user_id(PROBE, program, owner);
    Outcome outcome =
        lab::run(users_command(program, {program, "kiv"}, {"KIV_PRINT_UIDS=", "PATH=/nowhere"}));
    EXPECT_EQ(outcome.status, 0);
    size_t start = outcome.out.find("started=");
    ASSERT_NE(start, outcome.out.npos) << outcome.out;
    EXPECT_EQ(outcome.out.substr(start), ids);
    EXPECT_EQ(outcome.err, told);
  }
}

// What the caller says of the program's place does not count, nor do its rights.
TEST_F(StartupTest, ASetUserIdProgram) {
  if (!lab::has_users()) return skip("no users but root here");
  install_set_user_id(PROBE, "/startup/setuid/bin/startup_probe", 0);
  const std::string program = "/startup/setuid/bin/kivtrap";
  install_set_user_id(KIVTRAP, program, 0);
  for (const char* argv0 : {"/startup/bin/startup_probe", "startup_probe", "/no/such/file"}) {
    Outcome outcome = lab::run(users_command("/startup/setuid/bin/startup_probe", {argv0, "tarn"},
                                             {"PATH=/startup/bin", "KIV_PRINT_ORIGIN=1"}));
    EXPECT_NE(outcome.out.find("\ninstalldir=/startup/setuid\nappdir=/startup/setuid\n"),
              outcome.out.npos);
    EXPECT_NE(outcome.err.find("' is `/startup/setuid/bin/'\n"), outcome.err.npos) << outcome.err;
  }
  fs::create_hard_link(program, "/startup/setuid/elsewhere");
  Outcome linked =
      lab::run(users_command("/startup/setuid/elsewhere", {"/startup/bin/kivtrap", "manager"}));
  EXPECT_EQ(linked.err, hard_link_line("kivtrap", "/startup/setuid/elsewhere"));
  fs::remove("/startup/setuid/elsewhere");

  lab::write_file("/startup/setuid/secret", "of root alone\n");
  chmod("/startup/setuid/secret", 0600);
  Outcome refused =
      lab::run(users_command(program, {"kivtrap", "-f", "/startup/setuid/secret", "manager"}));
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.out, "file /startup/setuid/secret does not exist\n");
  EXPECT_FALSE(station->receive_now());
  EXPECT_EQ(lab::run(users_command(program, {"kivtrap", "manager"})).status, 0);
  EXPECT_TRUE(station->receive_now().value_or("").ends_with("disk full"));
}

// A locale of that codeset, as assignments for a command's environment.
std::vector<std::string> locale_of(const std::string& codeset) {
  fs::create_directories("/startup/locale");
  const std::string name = "POSIX." + codeset;
  lab::Command make;  // its warnings are many, and its status tells of them too
  make.words = {"localedef", "--no-archive", "-c",    "-i",
                "POSIX",     "-f",           codeset, "/startup/locale/" + name};
  lab::run(make);
  EXPECT_TRUE(fs::exists("/startup/locale/" + name + "/LC_CTYPE")) << codeset;
  return {"LOCPATH=/startup/locale", "LC_ALL=" + name};
}

// The texts of a trap: community and message.
std::pair<std::string, std::string> texts_of(const std::string& trap) {
  const size_t community = trap.find(from_hex("02010004")) + 4;
  const size_t message = trap.find(from_hex("06082B0601020101010004")) + 11;
  if (trap.size() < message) return {};
  return {trap.substr(community + 1, static_cast<unsigned char>(trap[community])),
          trap.substr(message + 1)};
}

TEST_F(StartupTest, TextsInEveryLocale) {
  const std::string program = "/startup/bin/kivtrap";
  std::string high;
  for (int byte = 0x80; byte <= 0xBF; ++byte)
    high += {static_cast<char>(byte + 0x40), static_cast<char>(byte)};
  high.resize(100);
  const struct {
    std::string codeset, argument, wanted;
  } cases[] = {{"ISO-8859-1", "caf\xE9", "caf\xC3\xA9"},
               {"ISO-8859-15", "\xA4", "\xE2\x82\xAC"},
               {"EUC-JP", "\xC6\xFC\xCB\xDC", "\xE6\x97\xA5\xE6\x9C\xAC"},
               {"UTF-8", "caf\xC3\xA9", "caf\xC3\xA9"},
               {"UTF-8", "plain", "plain"}};
  for (const auto& [codeset, argument, wanted] : cases) {
    SCOPED_TRACE(testing::Message() << codeset << " " << argument);
    std::vector<std::string> environment = locale_of(codeset);
    // A file of that name is found again, and its text is sent as it is.
    const std::string file = "/startup/" + argument;
    lab::write_file(file, high + "\n");
    const std::vector<std::string> words = {program, "-c", argument, "-f", file, "manager"};
    EXPECT_EQ(lab::run(command(program, words, environment)).status, 0);
    EXPECT_EQ(texts_of(station->receive_now().value_or("")), std::pair(wanted, high));
    environment.emplace_back("KIV_MAST=");
    lab::Command kept = command(program, {program, "-c", argument, "manager"}, environment);
    kept.input = high + "\n";
    EXPECT_EQ(lab::run(kept).status, 0);
    EXPECT_EQ(texts_of(station->receive_now().value_or("")), std::pair(argument, high));
  }

  // In the plain locale every byte is the Latin-1 character; a caller's own locales are
  // not for a set-user-id program.
  if (!lab::has_users()) return skip("no users but root here");
  install_set_user_id(KIVTRAP, "/startup/setuid/bin/kivtrap", 0);
  lab::Command trusted = users_command("/startup/setuid/bin/kivtrap",
                                       {program, "-c", "\xC6\xFC", "manager"}, locale_of("EUC-JP"));
  EXPECT_EQ(lab::run(trusted).status, 0);
  EXPECT_EQ(texts_of(station->receive_now().value_or("")).first, "\xC3\x86\xC3\xBC");
}

}  // namespace

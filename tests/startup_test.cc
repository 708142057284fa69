// The start of the command as a process: where it finds itself, whose rights it
// takes, and what becomes of its arguments.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/lab.h"
#include "tests/locales.h"
#include "tests/rpc_server.h"

namespace {

namespace fs = std::filesystem;

using lab::Outcome;

// Copies a program into a directory of the lab. Valgrind, which would put its own words and
// rights in the place of the test's, leaves what is in /startup alone.
std::string install(const fs::path& program, const std::string& directory = "/startup/bin/") {
  fs::create_directories(directory);
  std::string copy = directory + program.filename().string();
  fs::copy_file(program, copy, fs::copy_options::overwrite_existing);
  return copy;
}

// Copies a program so that it runs with the rights of `owner`.
std::string install_set_user_id(const char* program, unsigned owner) {
  std::string copy = install(program, "/startup/setuid/bin/");
  EXPECT_EQ(chown(copy.c_str(), owner, 0), 0);
  EXPECT_EQ(chmod(copy.c_str(), 04755), 0);
  return copy;
}

// What a program started as `argv0` writes when it shows its origin.
std::string origin_line(const std::string& argv0) {
  return fs::path(argv0).filename().string() + ": origin for `" + argv0 + "' is `/startup/bin/'\n";
}

std::string usage_of(const std::string& argv0) {
  return "usage: " + fs::path(argv0).filename().string() +
         " [-c community] [-t trap_type] [-s specific_trap] [-v] management_station\n";
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
    install(KIVTRAP);
    install(PROBE);
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

  const std::string program = "/startup/bin/kivtrap";
  std::optional<lab::UdpReceiver> station;
  std::optional<lab::EmptyPortMappers> mappers;
};

TEST_F(StartupTest, Origin) {
  fs::create_symlink("bin/kivtrap", "/startup/link");
  fs::create_directories("/startup/directory/kivtrap");
  fs::create_directories("/startup/plain");
  lab::write_file("/startup/plain/kivtrap", "");
  fs::current_path("/startup/bin");
  auto directory = [](size_t length) { return "/startup" + std::string(length - 11, '/') + "bin"; };
  const struct {
    std::string argv0, path;
    bool found = true;
  } cases[] = {
      {"/startup/../startup/bin/kivtrap", "PATH=/nowhere"},
      {"./kivtrap", "PATH="},
      {"/startup/link", "PATH="},
      {"/startup/bin/nowhere", "PATH=/startup/bin", false},
      {"kivtrap", "PATH=/nowhere:/startup/plain:/startup/directory:/startup/bin:/x"},
      {"kivtrap", "PATH=/nowhere::", false},
      {"kivtrap", "PATH"},  // unset
      {"kivtrap", "PATH=" + directory(1015)},
      {"kivtrap", "PATH=" + directory(1016), false},
      {"kivtrap", "PATH=" + directory(1016) + ":/startup/bin"},
      {std::string(1023, 'k'), "PATH=/startup/bin", false},
  };
  for (const auto& [argv0, path, found] : cases) {
    SCOPED_TRACE(testing::Message() << argv0 << " " << path);
    Outcome outcome = lab::run(command(program, {argv0}, {path, "KIV_PRINT_ORIGIN=quit"}));
    EXPECT_EQ(outcome.status, found ? 0 : 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, found ? origin_line(argv0) : usage_of(argv0));
  }
  fs::current_path("/");

  Outcome too_long = lab::run(command(program, {std::string(1024, 'k')}));
  EXPECT_EQ(too_long.status, 111);
  EXPECT_EQ(too_long.out + too_long.err, "");
  Outcome goes_on = lab::run(command(program, {program}, {"KIV_PRINT_ORIGIN="}));
  EXPECT_EQ(goes_on.err, origin_line(program) + usage_of(program));
}

TEST_F(StartupTest, RefusesHardLinks) {
  fs::create_hard_link(program, "/startup/other");
  fs::create_symlink("other", "/startup/link");
  Outcome outcome = lab::run(command(program, {"/startup/link", "manager"}));
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out + outcome.err, hard_link_line("link", "/startup/other"));
  EXPECT_FALSE(station->receive_now());
}

TEST_F(StartupTest, Directories) {
  const struct {
    std::string name, argv0, home, application, command;
  } cases[] = {
      {"kiv", "/startup/bin/startup_probe", "/startup", "/kiv", "/kiv/tmp/vxdbg.tmp"},
      {"qmo", "startup_probe", "/startup", "/startup", "/startup/bin/vxdbg.tmp"},
      {"tarn", "startup_probe", "/startup", "/startup", "/startup/tmp/vxdbg.tmp"},
      {"qmo", "nowhere", "(none)", "/qmo", ""},
      // the first name to be given is the later "other"
      {"-", "startup_probe", "/startup", "/other", ""},
  };
  for (const auto& [name, argv0, home, application, command_file] : cases) {
    Outcome outcome =
        lab::run(command("/startup/bin/startup_probe", {argv0, name}, {"PATH=/startup/bin"}));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out.substr(0, outcome.out.find("\nstarted=")),
              "before=0\nafter=1\ninstalldir=" + home + "\nappdir=" + application +
                  "\nbindir=" + (home == "(none)" ? home : home + "/bin") +
                  "\ntmpdir=" + application + "/tmp\nmoddir=" + application +
                  "/mod\nsecuredir=" + application + "/tmp/sec\ncommand=" + command_file)
        << name;
  }
}

TEST_F(StartupTest, RightsOfASetUserIdStart) {
  if (!lab::has_users()) return skip("no users but root here");
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
    const std::string probe = install_set_user_id(PROBE, owner);
    Outcome outcome =
        lab::run(users_command(probe, {probe, "kiv"}, {"KIV_PRINT_UIDS=", "PATH=/nowhere"}));
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
  const std::string probe = install_set_user_id(PROBE, 0);
  const std::string trusted = install_set_user_id(KIVTRAP, 0);
  for (const char* argv0 : {"/startup/bin/startup_probe", "startup_probe", "/no/such/file"}) {
    Outcome outcome = lab::run(users_command(probe, {argv0, "tarn"}, {"PATH=/startup/bin"}));
    EXPECT_NE(outcome.out.find("\ninstalldir=/startup/setuid\nappdir=/startup/setuid\n"),
              outcome.out.npos);
  }
  fs::create_hard_link(trusted, "/startup/setuid/elsewhere");
  Outcome linked = lab::run(users_command("/startup/setuid/elsewhere", {program, "manager"}));
  EXPECT_EQ(linked.err, hard_link_line("kivtrap", "/startup/setuid/elsewhere"));
  fs::remove("/startup/setuid/elsewhere");

  lab::write_file("/startup/setuid/secret", "of root alone\n");
  chmod("/startup/setuid/secret", 0600);
  Outcome refused =
      lab::run(users_command(trusted, {"kivtrap", "-f", "/startup/setuid/secret", "manager"}));
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.out, "file /startup/setuid/secret does not exist\n");
  EXPECT_FALSE(station->receive_now());
  EXPECT_EQ(lab::run(users_command(trusted, {"kivtrap", "manager"})).status, 0);
  EXPECT_TRUE(station->receive_now().value_or("").ends_with("disk full"));
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
  auto locale_of = [](const std::string& codeset) -> std::vector<std::string> {
    return {"LOCPATH=/startup", "LC_ALL=" + compile_locale("/startup", codeset)};
  };
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
  lab::Command trusted = users_command(install_set_user_id(KIVTRAP, 0),
                                       {program, "-c", "\xC6\xFC", "manager"}, locale_of("EUC-JP"));
  EXPECT_EQ(lab::run(trusted).status, 0);
  EXPECT_EQ(texts_of(station->receive_now().value_or("")).first, "\xC3\x86\xC3\xBC");
}

}  // namespace

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

// What a program started as `argv0` writes when it shows its origin, `directory`.
std::string origin_line(const std::string& argv0, const std::string& directory = "/startup/bin/") {
  return fs::path(argv0).filename().string() + ": origin for `" + argv0 + "' is `" + directory +
         "'\n";
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
    install("/startup/bin");
  }

  // Copies the command into a directory of the lab. Valgrind, which would put its own words
  // and rights in the place of the test's, leaves what is in /startup alone.
  static std::string install(const std::string& directory) {
    fs::create_directories(directory);
    fs::copy_file(KIVTRAP, directory + "/kivtrap");
    return directory + "/kivtrap";
  }

  // Copies it so that it runs with the rights of root.
  static std::string install_set_user_id() {
    std::string copy = install("/startup/setuid/bin");
    EXPECT_EQ(chown(copy.c_str(), 0, 0) + chmod(copy.c_str(), 04755), 0);
    return copy;
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

  static std::vector<std::string> locale_of(const std::string& codeset) {
    return {"LOCPATH=/startup", "LC_ALL=" + compile_locale("/startup", codeset)};
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
    for (const char* value : {"quit", "Q"}) {
      SCOPED_TRACE(testing::Message() << argv0 << " " << path);
      Outcome outcome =
          lab::run(command(program, {argv0}, {path, std::string("KIV_PRINT_ORIGIN=") + value}));
      EXPECT_EQ(outcome.status, found ? 0 : 1);
      EXPECT_EQ(outcome.out, "");
      EXPECT_EQ(outcome.err, found ? origin_line(argv0) : usage_of(argv0));
    }
  }
  fs::current_path("/");

  Outcome too_long = lab::run(command(program, {std::string(1024, 'k')}));
  EXPECT_EQ(too_long.status, 111);
  EXPECT_EQ(too_long.out + too_long.err, "");
  Outcome goes_on = lab::run(command(program, {program}, {"KIV_PRINT_ORIGIN="}));
  EXPECT_EQ(goes_on.err, origin_line(program) + usage_of(program));
}

// Whatever the bytes of its directory's name are in the locale's codeset: characters,
// others than they are in UTF-8, or none.
TEST_F(StartupTest, OriginInEveryLocale) {
  for (const char* codeset : {"", "UTF-8", "EUC-JP"}) {
    std::vector<std::string> environment = {"LC_ALL=C"};
    if (*codeset != '\0') environment = locale_of(codeset);
    environment.emplace_back("KIV_PRINT_ORIGIN=q");
    for (const char* bytes : {"\xC3\xA9", "\xE9", "\xC3\xA9\xFF", "\xEF\xA2\x80"}) {
      const std::string directory = std::string("/startup/in ") + codeset + bytes;
      const std::string copy = install(directory);
      SCOPED_TRACE(copy);
      EXPECT_EQ(lab::run(command(copy, {copy}, environment)).err,
                origin_line(copy, directory + "/"));
      environment.push_back("PATH=" + directory);
      EXPECT_EQ(lab::run(command(copy, {"kivtrap"}, environment)).err,
                origin_line("kivtrap", directory + "/"));
      environment.pop_back();
      fs::create_hard_link(copy, directory + "/other");
      fs::create_symlink("other", directory + "/link");
      Outcome refused = lab::run(command(copy, {directory + "/link", "manager"}, environment));
      EXPECT_EQ(refused.status, 1);
      EXPECT_EQ(refused.out + refused.err, hard_link_line("link", directory + "/other"));
    }
  }
  EXPECT_FALSE(station->receive_now());
}

// What the caller says of the program's place does not count, nor do its rights.
TEST_F(StartupTest, ASetUserIdProgram) {
  if (!lab::has_users()) return skip("no users but root here");
  const std::string trusted = install_set_user_id();
  for (const char* argv0 : {"/startup/bin/kivtrap", "kivtrap", "/no/such/file"}) {
    Outcome outcome =
        lab::run(users_command(trusted, {argv0}, {"PATH=/startup/bin", "KIV_PRINT_ORIGIN=q"}));
    EXPECT_EQ(outcome.err, origin_line(argv0, "/startup/setuid/bin/"));
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

// A file of a converted name is found again, and its text is sent as it is.
TEST_F(StartupTest, TextsInTheLocale) {
  const std::string argument = "\xC6\xFC\xCB\xDC", high = "\xC6\x80\xBF\xFF";
  std::vector<std::string> environment = locale_of("EUC-JP");
  const std::string file = "/startup/" + argument;
  lab::write_file(file, high + "\n");
  auto sent = [&](lab::Command run) {
    EXPECT_EQ(lab::run(run).status, 0);
    return texts_of(station->receive_now().value_or(""));
  };
  EXPECT_EQ(sent(command(program, {program, "-c", argument, "-f", file, "manager"}, environment)),
            std::pair(std::string("\xE6\x97\xA5\xE6\x9C\xAC"), high));
  // A caller's own locales are not for a set-user-id program, and in the plain one every
  // byte is the Latin-1 character.
  if (!lab::has_users()) return skip("no users but root here");
  EXPECT_EQ(
      sent(users_command(install_set_user_id(), {program, "-c", "\xC6", "manager"}, environment))
          .first,
      "\xC3\x86");
}

}  // namespace

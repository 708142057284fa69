// The start of the command as a process: where it finds itself, and whose rights it takes.
#include <sys/stat.h>

#include <filesystem>

#include "tests/locales.h"
#include "tests/machine.h"
#include "tests/rpc_server.h"

namespace {

namespace fs = std::filesystem;

// What a program started as `argv0` writes when it shows its origin, `directory`.
std::string origin_line(const std::string& argv0, const std::string& directory = "/startup/bin/") {
  const std::string name = fs::path(argv0).filename();
  return name + ": origin for `" + argv0 + "' is `" + directory + "'\n";
}

using StartupTest = MachineTest;

// Copies the command into a new directory of the test machine. Valgrind, which would put its own
// words and rights in the place of the test's, leaves what is in /startup alone.
std::string install(const std::string& directory) {
  fs::remove_all(directory);
  fs::create_directories(directory);
  fs::copy_file(KIVTRAP, directory + "/kivtrap");
  return directory + "/kivtrap";
}

// `file` started as words[0]. By a user without rights no leak checker may look into it.
machine::Outcome run(const std::string& file, std::vector<std::string> words,
                     std::vector<std::string> environment = {}, unsigned user = 0) {
  if (user != 0) environment.emplace_back("ASAN_OPTIONS=detect_leaks=0");
  return machine::run({std::move(words), "disk full\n", std::move(environment), {}, user, file});
}

TEST_F(StartupTest, Origin) {
  const std::string program = install("/startup/bin");
  EXPECT_EQ(system("cd /startup; mkdir -p directory/kivtrap plain; touch plain/kivtrap;"
                   "ln -sf bin/kivtrap link"),
            0);
  fs::current_path("/startup/bin");
  auto directory = [](size_t length) { return "/startup" + std::string(length - 11, '/') + "bin"; };
  const std::tuple<bool, std::string, std::string> cases[] = {
      {true, "/startup/../startup/bin/kivtrap", "PATH=/nowhere"},
      {true, "./kivtrap", "PATH="},
      {true, "/startup/link", "PATH="},
      {false, "/startup/bin/nowhere", "PATH=/startup/bin"},
      {true, "kivtrap", "PATH=/nowhere:/startup/plain:/startup/directory:/startup/bin:/x"},
      {false, "kivtrap", "PATH=/nowhere::"},
      {true, "kivtrap", "PATH"},  // unset
      {true, "kivtrap", "PATH=" + directory(1015)},
      {false, "kivtrap", "PATH=" + directory(1016)},
      {true, "kivtrap", "PATH=" + directory(1016) + ":/startup/bin"},
      {false, std::string(1023, 'k'), "PATH=/startup/bin"}};
  for (const auto& [found, argv0, path] : cases) {
    for (const std::string value : {"quit", "Q", ""}) {
      const machine::Outcome outcome = run(program, {argv0}, {path, "KIV_PRINT_ORIGIN=" + value});
      EXPECT_EQ(outcome.status, found && !value.empty() ? 0 : 1) << argv0 << " " << path;
      EXPECT_EQ(outcome.err.starts_with(origin_line(argv0)), found) << outcome.err;
    }
  }
  fs::current_path("/");
  EXPECT_EQ(run(program, {std::string(1024, 'k')}).status, 111);
}

// Whatever bytes its directory's name has: characters of the codeset, of another, or none.
TEST_F(StartupTest, OriginInEveryLocale) {
  for (const std::string codeset : {"", "UTF-8", "EUC-JP"}) {
    const std::string locale = codeset.empty() ? "C" : compile_locale("/startup", codeset);
    for (const char* bytes : {"\xC3\xA9", "\xE9", "\xC3\xA9\xFF", "\xEF\xA2\x80"}) {
      const std::string directory = "/startup/in " + codeset + bytes, copy = install(directory);
      const std::vector<std::string> environment = {"LOCPATH=/startup", "LC_ALL=" + locale,
                                                    "KIV_PRINT_ORIGIN=q", "PATH=" + directory};
      for (const std::string& argv0 : {copy, std::string("kivtrap")}) {
        EXPECT_EQ(run(copy, {argv0}, environment).err, origin_line(argv0, directory + "/"));
      }
      fs::create_hard_link(copy, directory + "/other");
      fs::create_symlink("other", directory + "/link");
      machine::Outcome refused = run(copy, {directory + "/link", "manager"}, environment);
      EXPECT_EQ(std::to_string(refused.status) + refused.out + refused.err,
                "1link: unable to execute with hard links to binary " + directory + "/other\n");
    }
  }
}

// What the caller says of the program's place does not count, nor do its rights.
TEST_F(StartupTest, ASetUserIdProgram) {
  if (!machine::has_users()) return skip("no users but root here");
  install("/startup/bin");
  const std::string trusted = install("/startup/setuid/bin"), secret = "/startup/setuid/secret";
  EXPECT_EQ(chmod(trusted.c_str(), 04755), 0);
  const std::vector<std::string> environment = {"PATH=/startup/bin", "KIV_PRINT_ORIGIN=q"};
  for (const char* argv0 : {"/startup/bin/kivtrap", "kivtrap", "/no/such/file"}) {
    EXPECT_EQ(run(trusted, {argv0}, environment, machine::kUser).err,
              origin_line(argv0, "/startup/setuid/bin/"));
  }
  const machine::UdpReceiver station(162);
  const machine::EmptyPortMappers mappers;
  machine::write_file(secret, "of root alone\n");
  chmod(secret.c_str(), 0600);
  machine::Outcome refused = run(trusted, {"kivtrap", "-f", secret, "manager"}, {}, machine::kUser);
  EXPECT_EQ(refused.out, "file " + secret + " does not exist\n");
  EXPECT_TRUE(refused.status == 1 && !station.receive_now());
  EXPECT_EQ(run(trusted, {"kivtrap", "manager"}, {}, machine::kUser).status, 0);
  EXPECT_TRUE(station.receive_now().value_or("").ends_with("disk full"));
}

}  // namespace

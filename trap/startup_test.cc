// The start of the command as a process: where it finds itself, and whose rights it takes.
#include <sys/stat.h>

#include <filesystem>

#include "tests/locales.h"
#include "tests/machine.h"

using namespace machine;

namespace {

namespace fs = std::filesystem;

using StartupTest = MachineTest;

// Copies the command into a new directory of the test machine. Valgrind leaves the programs in
// /startup alone: it would show its own name and rights instead of theirs.
std::string install(const std::string& directory, mode_t mode = 0755) {
  const std::string program = directory + "/kivtrap";
  fs::remove_all(directory);
  fs::create_directories(directory);
  fs::copy_file(KIVTRAP, program);
  EXPECT_EQ(chmod(program.c_str(), mode), 0);
  return program;
}

// `file` started as words[0]. By a user without rights no leak checker may look into it.
Outcome run(const std::string& file, std::vector<std::string> words,
            std::vector<std::string> environment = {}, unsigned user = 0) {
  if (user != 0) environment.emplace_back("ASAN_OPTIONS=detect_leaks=0");
  return machine::run({std::move(words), "", std::move(environment), user, file});
}

// What a program started as `argv0` writes when it shows its origin.
std::string origin_line(const std::string& argv0, const std::string& directory) {
  const std::string name = fs::path(argv0).filename();
  return name + ": origin for `" + argv0 + "' is `" + directory + "'\n";
}

TEST_F(StartupTest, FindsItsOrigin) {
  const std::string program = install("/startup/bin");
  ASSERT_EQ(system("cd /startup; mkdir -p directory/kivtrap plain; touch plain/kivtrap;"
                   "ln -sf bin/kivtrap link"),
            0);
  const struct {
    const char* argv0;
    std::string path;
    bool found;
  } rows[] = {
      {"/startup/../startup/link", "PATH=", true},
      {"kivtrap", "PATH=/x:/startup/plain:/startup/directory:/startup/bin:/x", true},
      {"kivtrap", "PATH=:/startup/plain:/startup" + std::string(1005, '/') + "bin", false},
  };
  for (const auto& row : rows) {
    const Outcome outcome = run(program, {row.argv0}, {row.path, "KIV_PRINT_ORIGIN=Q"});
    EXPECT_EQ(outcome.status, row.found ? 0 : 1) << row.path;
    EXPECT_EQ(outcome.err.starts_with(origin_line(row.argv0, "/startup/bin/")), row.found);
  }
}

TEST_F(StartupTest, LendsNoRightsToItsUser) {
  if (!has_users()) return skip("no users but root here");
  const std::string program = install("/startup/setuid/bin", 04755);
  install("/startup/bin");
  for (const char* argv0 : {"/startup/bin/kivtrap", "kivtrap"}) {
    EXPECT_EQ(run(program, {argv0}, {"PATH=/startup/bin", "KIV_PRINT_ORIGIN=q"}, kUser).err,
              origin_line(argv0, "/startup/setuid/bin/"));
  }
  ASSERT_EQ(system("cd /startup; echo secret >secret; chmod 600 secret"), 0);
  EXPECT_EQ(run(program, {"kivtrap", "-f", "/startup/secret", "manager"}, {}, kUser).out,
            "file /startup/secret does not exist\n");
}

}  // namespace

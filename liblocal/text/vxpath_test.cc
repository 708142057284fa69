#include "liblocal/text/vxpath.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>

#include "liblocal/messages/progname.h"
#include "liblocal/threads/c_memory.h"

namespace {

TEST(Vxpath, TakesPathsApartAndCutsThemToTheBuffer) {
  const std::string most(kPathComponentSize - 1, 'n');
  const std::tuple<std::string, size_t, std::string, std::string> cases[] = {
      {"/usr/sbin///", 1024, "/usr", "sbin"},  // path, size; directory, base
      {"//a", 1024, "/", "a"},
      {"", 1024, "/", ""},
      {most + "n", 1024, ".", most},
      {most + "/x", 1024, ".", most},
      {"/usr/sbin/kivtrap", 7, "/usr/s", "kivtra"},
      {"/usr/sbin/kivtrap", 6, "/usr", "kivtr"},
      {"kivtrap", 0, "!", "!"}};
  for (const auto& [path, size, directory, base] : cases) {
    char buffer[kPathComponentSize] = "!";
    EXPECT_TRUE(vx_path_dirname(path.c_str(), buffer, size) == 0 && buffer == directory) << path;
    EXPECT_TRUE(vx_path_basename(path.c_str(), buffer, size) == 0 && buffer == base) << path;
  }
  char buffer[2];
  EXPECT_EQ(vx_path_dirname(nullptr, buffer, 2) + vx_path_basename("a", nullptr, 2), -2);
}

TEST(Vxpath, JoinsPaths) {
  auto joined = [](const char* directory, const char* name) {
    return std::string(c_unique_ptr<char>(path_concat(directory, name)).get());
  };
  EXPECT_EQ(joined("/kiv", "tmp") + joined("/kiv/", nullptr), "/kiv/tmp/kiv/");
  EXPECT_EQ(joined(nullptr, "tmp"), "./tmp");
  EXPECT_EQ(path_concat(nullptr, nullptr), nullptr);
}

TEST(Progname, IsTheBaseNameUpToItsFirstDot) {
  char buffer[kPathComponentSize];
  const std::string most(kPathComponentSize - 1, 'n');
  const std::pair<std::string, std::string> cases[] = {{"/opt/x/bin/KivTrap.Exe", "kivtrap"},
                                                       {"", "kivtrap"},  // changes nothing
                                                       {"\xC3\x84RGERAZ", "\xC3\x84rgeraz"},
                                                       {most + "n", most},
                                                       {"/opt/.hidden", ""}};
  for (const auto& [path, name] : cases) {
    vx_set_progname(path.c_str());
    EXPECT_EQ(vx_get_progname(buffer, sizeof buffer), name) << path;
  }
  vx_set_progname("kivtrap");
  EXPECT_STREQ(vx_get_progname(buffer, 4), "kiv");
}

}  // namespace

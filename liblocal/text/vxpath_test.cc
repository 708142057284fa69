#include "liblocal/text/vxpath.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "liblocal/messages/progname.h"

namespace {

TEST(Vxpath, TakesPathsApart) {
  const std::string most(kPathComponentSize - 1, 'n');
  const struct {
    std::string path, directory, base;
  } cases[] = {{"/usr/sbin/kivtrap", "/usr/sbin", "kivtrap"},
               {"/usr/sbin///", "/usr", "sbin"},
               {"kivtrap", ".", "kivtrap"},
               {"//a", "/", "a"},
               {"/", "/", ""},
               {"", "/", ""},
               {most + "n", ".", most},
               {most + "/x", ".", most}};
  for (const auto& [path, directory, base] : cases) {
    char buffer[kPathComponentSize];
    EXPECT_EQ(vx_path_dirname(path.c_str(), buffer, sizeof buffer), 0);
    EXPECT_EQ(buffer, directory) << path;
    EXPECT_EQ(vx_path_basename(path.c_str(), buffer, sizeof buffer), 0);
    EXPECT_EQ(buffer, base) << path;
  }
}

TEST(Vxpath, CutsToTheBuffer) {
  char buffer[9] = "........";
  const struct {
    size_t size;
    const char *directory, *base;
  } cases[] = {
      {8, "/usr/sb", "kivtrap"}, {7, "/usr/s", "kivtra"}, {6, "/usr", "kivtr"}, {1, "", ""}};
  for (const auto& [size, directory, base] : cases) {
    EXPECT_EQ(vx_path_basename("/usr/sbin/kivtrap", buffer, size), 0);
    EXPECT_STREQ(buffer, base);
    EXPECT_EQ(vx_path_dirname("/usr/sbin/kivtrap", buffer, size), 0);
    EXPECT_STREQ(buffer, directory);
  }
}

TEST(Vxpath, JoinsPaths) {
  const struct {
    const char *directory, *name, *wanted;
  } cases[] = {{"/kiv", "tmp", "/kiv/tmp"},
               {"/kiv/", "tmp", "/kiv/tmp"},
               {nullptr, "tmp", "./tmp"},
               {nullptr, nullptr, nullptr}};
  for (const auto& [directory, name, wanted] : cases) {
    char* path = path_concat(directory, name);
    EXPECT_STREQ(path, wanted);
    free(path);
  }
}

TEST(Progname, IsTheBaseNameUpToItsFirstDot) {
  char buffer[kPathComponentSize];
  const std::string most(kPathComponentSize - 1, 'n');
  const std::pair<std::string, std::string> cases[] = {{"/opt/x/bin/KivTrap.Exe", "kivtrap"},
                                                       {"/opt/kivtrap/", "kivtrap"},
                                                       {"", "kivtrap"},  // changes nothing
                                                       {"\xC3\x84RGER", "\xC3\x84rger"},
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

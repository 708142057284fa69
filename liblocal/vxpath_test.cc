#include "liblocal/vxpath.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "liblocal/progname.h"
#include "liblocal/vx_error.h"

namespace {

TEST(Vxpath, TakesPathsApart) {
  const std::string most(kPathComponentSize - 1, 'n');
  const struct {
    std::string path, directory, base;
  } cases[] = {{"/usr/sbin/kivtrap", "/usr/sbin", "kivtrap"},
               {"/usr/sbin///", "/usr", "sbin"},
               {"usr//sbin", "usr", "sbin"},
               {"kivtrap", ".", "kivtrap"},
               {"kivtrap/", ".", "kivtrap"},
               {"//a", "/", "a"},
               {"/", "/", ""},
               {"///", "/", ""},
               {"", "/", ""},
               {most, ".", most},
               {most + "n", ".", most},
               {"/" + most, "/", most.substr(1)},
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
  buffer[0] = 'x';
  EXPECT_EQ(vx_path_basename("a/b", buffer, 0), 0);
  EXPECT_EQ(vx_path_dirname("a/b", buffer, 0), 0);
  EXPECT_EQ(buffer[0], 'x');
  vx_error_set_last(0, kVxErrorErrno);
  EXPECT_EQ(vx_path_basename(nullptr, buffer, 9) + vx_path_dirname("a", nullptr, 9), -2);
  EXPECT_EQ(vx_error_get_last(), vx_error_from_errno(EINVAL));
}

TEST(Vxpath, JoinsPaths) {
  const struct {
    const char *directory, *name, *wanted;
  } cases[] = {{"/kiv", "tmp", "/kiv/tmp"}, {"/kiv/", "tmp", "/kiv/tmp"},
               {"", "tmp", "/tmp"},         {"/", "", "/"},
               {nullptr, "tmp", "./tmp"},   {"/kiv", nullptr, "/kiv/"},
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
  vx_set_progname(nullptr);
  EXPECT_STREQ(vx_get_progname(buffer, 4), "kiv");
  EXPECT_STREQ(vx_get_progname(buffer, 1), "");
}

}  // namespace

// Paths as text, and the files that they name.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <tuple>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/text_sizes.h"
#include "liblocal/messages/progname.h"
#include "liblocal/text/utf8.h"
#include "liblocal/text/utf8_files.h"
#include "liblocal/text/vxpath.h"
#include "liblocal/text/vxstrftime.h"
#include "tests/fakes.h"
#include "tests/locales.h"

namespace {

std::set<std::string> listed(const std::string& path) {
  std::set<std::string> names;
  DIR* directory = utf8_opendir(path.c_str());
  const c_unique_ptr<char> room(static_cast<char*>(malloc(kUtf8DirentSize)));
  auto* entry = reinterpret_cast<dirent*>(room.get());
  while (vx_readdir(directory, entry) == entry) names.insert(room.get() + offsetof(dirent, d_name));
  closedir(directory);
  return names;
}

TEST(Utf8Files, EveryCallTakesAPathInUtf8) {
  in_locale("ISO-8859-15", [] {
    TemporaryDirectory place;
    const std::string raw = place.path() + "/d\xA4", text = place.path() + "/d€";
    const std::string inside = text + "/€", link = text + "l";
    std::string longest;
    while (longest.size() < 255 * 3U) longest += "\xEF\xA3\xA9";
    const char* path = text.c_str();
    const std::string wanted = place.path() + "/d" + "\xEF\xA2\xA4";
    char buffer[128];
    struct stat status;
    vx_stat_record record = {7};
    auto status_of = [&](const std::string& file) { return utf8_lstat(file.c_str(), &status); };
    EXPECT_EQ(utf8_mkdir(path, 0750), 0);
    EXPECT_TRUE(lstat(raw.c_str(), &status) == 0 && (status.st_mode & 07777) == 0750);
    const utimbuf times = {7, 9};
    EXPECT_EQ(utf8_utime(path, &times), 0);
    EXPECT_TRUE(status_of(path) == 0 && status.st_atime == 7 && status.st_mtime == 9);
    EXPECT_EQ(utf8_chmod(path, 0700) + utf8_chown(path, getuid(), getgid()), 0);
    EXPECT_TRUE(vx_stat((text + "x").c_str(), &record) == -1 && record.mode == 7);
    EXPECT_TRUE(vx_stat(path, &record) == 0 && record.mode == (kVxDirectory | 0700));
    EXPECT_EQ(utf8_symlink("d€", link.c_str()), 0);
    EXPECT_TRUE(vx_lstat(link.c_str(), &record) == 0 &&
                (record.mode & kVxTypeMask) == kVxSymbolicLink);
    EXPECT_EQ(utf8_readlink(link.c_str(), buffer, sizeof buffer), 4);
    EXPECT_STREQ(buffer, "d\xEF\xA2\xA4");
    EXPECT_EQ(utf8_mknod(inside.c_str(), S_IFIFO | 0600, 0), 0);
    EXPECT_TRUE(status_of(inside) == 0 && status.st_mode == (S_IFIFO | 0600U));
    const std::string second = inside + "h";
    EXPECT_EQ(utf8_access(inside.c_str(), R_OK) + utf8_link(inside.c_str(), second.c_str()), 0);
    vxfclose(utf8_fopen((text + "/" + longest).c_str(), "w"));
    EXPECT_EQ(listed(link),
              (std::set<std::string>{".", "..", "\xEF\xA2\xA4", "\xEF\xA2\xA4h", longest}));
    EXPECT_EQ(unlink((raw + "/" + std::string(255, '\xE9')).c_str()), 0) << "the raw name";
    EXPECT_EQ(utf8_chdir(path), 0);
    EXPECT_STREQ(brix_getcwd(buffer, sizeof buffer), wanted.c_str());
    EXPECT_STREQ(c_unique_ptr<char>(utf8_getcwd(nullptr, wanted.size() + 2)).get(), wanted.c_str());
    EXPECT_TRUE(utf8_getcwd(buffer, wanted.size()) == nullptr && errno == ERANGE);
    EXPECT_EQ(utf8_unlink(second.c_str()) + utf8_unlink(inside.c_str()), 0);
    EXPECT_TRUE(utf8_chdir("/") + utf8_rmdir(path) == 0 && status_of(path) != 0);
    tm time = {};
    EXPECT_STREQ(vxstrptime("2026-03-01 €", "%Y-%m-%d", &time), " \xA4");
  });
}

TEST(Utf8Files, Failures) {
  TemporaryDirectory place;
  const std::string path = place.path() + "/l";
  const char* link = path.c_str();
  char buffer[11];
  EXPECT_EQ(utf8_readlink(link, buffer, 11), -1);
  EXPECT_EQ(utf8_symlink("0123456789", link) + utf8_readlink(link, buffer, 11), 10);
  EXPECT_EQ(utf8_readlink(link, buffer, 10), 9);
  EXPECT_STREQ(buffer, "012345678");
  ASSERT_EQ(utf8_unlink(link) + utf8_symlink("\xEF\xA3\xA9", link), 0);
  EXPECT_TRUE(utf8_readlink(link, buffer, 3) == -1 && errno == ERANGE);
  errno = EBUSY;
  EXPECT_STREQ(syscalls_utf8dec("/a\xEF\xA3\xA9"), "/a\xE9");
  EXPECT_EQ(errno, EBUSY);
  EXPECT_STREQ(syscalls_utf8dec("/etc\xEF\xA2"), "") << "never a part of a name";
  const std::string most(kPathSize, 'x');
  EXPECT_EQ(syscalls_utf8dec(most.c_str()), most.substr(1));
  EXPECT_TRUE(utf8_access(most.c_str(), F_OK) == -1 && errno == ENAMETOOLONG);
  fakes::FailingMalloc failing(0);
  EXPECT_TRUE(utf8_link("/a", "/b") == -1 && errno == ENOMEM);
  EXPECT_TRUE(utf8_readlink(link, buffer, 4) == -1 && utf8_getcwd(buffer, 4) == nullptr);
}

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

// Paths as text, and the files that they name.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/text_sizes.h"
#include "liblocal/messages/progname.h"
#include "liblocal/text/utf8.h"
#include "liblocal/text/utf8_files.h"
#include "liblocal/text/vxpath.h"
#include "tests/locales.h"

namespace {

// Each wrapper finds what those before it left of files whose name has a '€'.
TEST(Utf8Files, PathsAreConverted) {
  static const struct {
    const char* name;
    int (*call)(const char* path);
  } wrappers[] = {
      {"mkdir", [](const char* path) { return utf8_mkdir(path, 0700); }},
      {"access", [](const char* path) { return utf8_access(path, R_OK); }},
      {"chmod", [](const char* path) { return utf8_chmod(path, 0700); }},
      {"chown", [](const char* path) { return utf8_chown(path, getuid(), getgid()); }},
      {"utime", [](const char* path) { return utf8_utime(path, nullptr); }},
      {"opendir", [](const char* path) { return closedir(utf8_opendir(path)); }},
      {"chdir", [](const char* path) { return utf8_chdir(path) + chdir(".."); }},
      {"rmdir", utf8_rmdir},
      {"mknod", [](const char* path) { return utf8_mknod(path, S_IFREG | 0600, 0); }},
      {"fopen", [](const char* path) { return vxfclose(utf8_fopen(path, "r")); }},
      {"link", [](const char* path) { return utf8_link(path, "€"); }},
      {"unlink", utf8_unlink},
      {"symlink", [](const char* path) { return utf8_symlink("€", path); }},
  };
  in_locale("ISO-8859-15", [] {
    const TemporaryDirectory place;
    ASSERT_EQ(chdir(place.path().c_str()), 0);
    for (const auto& [name, call] : wrappers) EXPECT_EQ(call("d€"), 0) << name;
    struct stat status;
    EXPECT_EQ(lstat("\xA4", &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0600U);
    EXPECT_EQ(utf8_lstat("d€", &status), 0);
    char target[16];
    EXPECT_EQ(utf8_readlink("d€", target, sizeof target), 3);
    EXPECT_STREQ(target, "\xEF\xA2\xA4") << "names from the platform are transparent";
  });
}

TEST(Utf8Files, CurrentDirectory) {
  const TemporaryDirectory place;
  const std::string raw = place.path() + "/\xE9", wanted = place.path() + "/\xEF\xA3\xA9";
  ASSERT_EQ(mkdir(raw.c_str(), 0700), 0);
  ASSERT_EQ(chdir(raw.c_str()), 0);
  char buffer[128];
  EXPECT_STREQ(brix_getcwd(buffer, sizeof buffer), wanted.c_str());
  const c_unique_ptr<char> made(utf8_getcwd(nullptr, wanted.size() + 2));
  EXPECT_STREQ(made.get(), wanted.c_str());
  EXPECT_EQ(utf8_getcwd(buffer, wanted.size()), nullptr);
  EXPECT_EQ(errno, ERANGE);
  ASSERT_EQ(chdir("/"), 0);
}

TEST(Utf8Files, TheLongestNameIsReadInTransparentBytes) {
  const TemporaryDirectory place;
  ASSERT_EQ(mkdir((place.path() + "/" + std::string(255, '\xE9')).c_str(), 0700), 0);
  std::string longest;
  while (longest.size() < 255 * 3U) longest += "\xEF\xA3\xA9";
  std::set<std::string> names;
  DIR* directory = utf8_opendir(place.path().c_str());
  const c_unique_ptr<char> memory(static_cast<char*>(malloc(kUtf8DirentSize)));
  auto* entry = reinterpret_cast<dirent*>(memory.get());
  while (vx_readdir(directory, entry) == entry)
    names.insert(memory.get() + offsetof(dirent, d_name));
  closedir(directory);
  EXPECT_EQ(names, (std::set<std::string>{".", "..", longest}));
}

TEST(Utf8Files, StatusOfAFileAndOfALink) {
  const TemporaryDirectory place;
  const std::string link = place.path() + "/link";
  vx_stat_record record = {7};
  EXPECT_EQ(vx_stat(link.c_str(), &record), -1);
  EXPECT_EQ(record.mode, 7U);
  EXPECT_EQ(symlink(".", link.c_str()), 0);
  EXPECT_EQ(vx_stat(link.c_str(), &record), 0);
  EXPECT_EQ(record.mode, kVxDirectory | 0700);
  EXPECT_EQ(vx_lstat(link.c_str(), &record), 0);
  EXPECT_EQ(record.mode & kVxTypeMask, kVxSymbolicLink);
}

TEST(Utf8Files, ReadlinkCutsAndRefuses) {
  const TemporaryDirectory place;
  const std::string link = place.path() + "/l", other = place.path() + "/o";
  char buffer[11];
  EXPECT_EQ(utf8_readlink(link.c_str(), buffer, 11), -1) << "there is none";
  ASSERT_EQ(symlink("0123456789", link.c_str()), 0);
  EXPECT_EQ(utf8_readlink(link.c_str(), buffer, 11), 10);
  EXPECT_EQ(utf8_readlink(link.c_str(), buffer, 10), 9);
  EXPECT_STREQ(buffer, "012345678");
  ASSERT_EQ(symlink("\xE9", other.c_str()), 0);
  EXPECT_EQ(utf8_readlink(other.c_str(), buffer, 3), -1);
  EXPECT_EQ(errno, ERANGE);
}

TEST(Utf8Files, ConvertedPaths) {
  errno = EBUSY;
  EXPECT_STREQ(syscalls_utf8dec("/a\xEF\xA3\xA9"), "/a\xE9");
  EXPECT_EQ(errno, EBUSY);
  EXPECT_STREQ(syscalls_utf8dec("/etc\xEF\xA2"), "") << "never a part of a name";
  const std::string most(kPathSize, 'x');
  EXPECT_EQ(syscalls_utf8dec(most.c_str()), most.substr(1));
  EXPECT_EQ(utf8_access(most.c_str(), F_OK), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST(Vxpath, TakesPathsApartAndCutsThemToTheBuffer) {
  const std::string most(kPathComponentSize - 1, 'n');
  const struct {
    std::string path;
    size_t size;
    std::string directory, base;
  } cases[] = {{"/usr/sbin///", 1024, "/usr", "sbin"},
               {"//a", 1024, "/", "a"},
               {"", 1024, "/", ""},
               {most + "n", 1024, ".", most},
               {most + "/x", 1024, ".", most},
               {"/usr/sbin/kivtrap", 7, "/usr/s", "kivtra"},
               {"/usr/sbin/kivtrap", 6, "/usr", "kivtr"},
               {"kivtrap", 0, "!", "!"}};
  for (const auto& [path, size, directory, base] : cases) {
    char buffer[kPathComponentSize] = "!";
    EXPECT_EQ(vx_path_dirname(path.c_str(), buffer, size), 0);
    EXPECT_EQ(buffer, directory) << path;
    EXPECT_EQ(vx_path_basename(path.c_str(), buffer, size), 0);
    EXPECT_EQ(buffer, base) << path;
  }
}

TEST(Vxpath, NullsAreRefused) {
  char buffer[2];
  EXPECT_EQ(vx_path_dirname(nullptr, buffer, 2), -1);
  EXPECT_EQ(vx_path_basename("a", nullptr, 2), -1);
  EXPECT_EQ(path_concat(nullptr, nullptr), nullptr);
}

TEST(Vxpath, JoinsPaths) {
  const struct {
    const char *directory, *name, *path;
  } cases[] = {{"/kiv", "tmp", "/kiv/tmp"}, {"/kiv/", nullptr, "/kiv/"}, {nullptr, "tmp", "./tmp"}};
  for (const auto& [directory, name, path] : cases) {
    EXPECT_STREQ(c_unique_ptr<char>(path_concat(directory, name)).get(), path);
  }
}

TEST(Progname, IsTheBaseNameUpToItsFirstDot) {
  const std::string most(kPathComponentSize - 1, 'n');
  const struct {
    std::string path, name;
  } cases[] = {{"/opt/x/bin/KivTrap.Exe", "kivtrap"},
               {"", "kivtrap"},  // changes nothing
               {"\xC3\x84RGERAZ", "\xC3\x84rgeraz"},
               {most + "n", most},
               {"/opt/.hidden", ""}};
  for (const auto& [path, name] : cases) {
    char buffer[kPathComponentSize];
    vx_set_progname(path.c_str());
    EXPECT_EQ(vx_get_progname(buffer, sizeof buffer), name) << path;
  }
}

}  // namespace

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

// Every wrapper creates, finds, changes or removes a file whose name has a '€', of one byte in
// the codeset of the locale. Names from the platform have that byte in transparent form.
TEST(Utf8Files, PathsAreConverted) {
  in_locale("ISO-8859-15", [] {
    const TemporaryDirectory place;
    const std::string directory = place.path() + "/d€", raw = place.path() + "/d\xA4";
    const std::string carried = place.path() + "/d\xEF\xA2\xA4";
    const std::string pipe = directory + "/€", second = pipe + "h", link = directory + "l";
    struct stat status;

    EXPECT_EQ(utf8_mkdir(directory.c_str(), 0750), 0);
    ASSERT_EQ(lstat(raw.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0750U);
    EXPECT_EQ(utf8_chmod(directory.c_str(), 0700), 0);
    EXPECT_EQ(utf8_chown(directory.c_str(), getuid(), getgid()), 0);
    const utimbuf times = {7, 9};
    EXPECT_EQ(utf8_utime(directory.c_str(), &times), 0);
    ASSERT_EQ(utf8_lstat(directory.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
    EXPECT_EQ(status.st_atime, 7);
    EXPECT_EQ(status.st_mtime, 9);

    EXPECT_EQ(utf8_mknod(pipe.c_str(), S_IFIFO | 0600, 0), 0);
    EXPECT_EQ(utf8_access(pipe.c_str(), R_OK), 0);
    EXPECT_EQ(utf8_link(pipe.c_str(), second.c_str()), 0);
    EXPECT_EQ(utf8_symlink("d€", link.c_str()), 0);
    char target[16];
    EXPECT_EQ(utf8_readlink(link.c_str(), target, sizeof target), 4);
    EXPECT_STREQ(target, "d\xEF\xA2\xA4");

    EXPECT_EQ(utf8_chdir(directory.c_str()), 0);
    char buffer[128];
    EXPECT_STREQ(brix_getcwd(buffer, sizeof buffer), carried.c_str());
    const c_unique_ptr<char> made(utf8_getcwd(nullptr, carried.size() + 2));
    EXPECT_STREQ(made.get(), carried.c_str());
    EXPECT_EQ(utf8_getcwd(buffer, carried.size()), nullptr);
    EXPECT_EQ(errno, ERANGE);

    EXPECT_EQ(utf8_unlink(second.c_str()), 0);
    EXPECT_EQ(utf8_unlink(pipe.c_str()), 0);
    EXPECT_EQ(utf8_chdir("/"), 0);
    EXPECT_EQ(utf8_rmdir(directory.c_str()), 0);
    EXPECT_NE(lstat(raw.c_str(), &status), 0);
  });
}

TEST(Utf8Files, TheLongestNameIsReadAndOpened) {
  const TemporaryDirectory place;
  std::string longest;
  while (longest.size() < 255 * 3U) longest += "\xEF\xA3\xA9";
  FILE* file = utf8_fopen((place.path() + "/" + longest).c_str(), "w");
  ASSERT_NE(file, nullptr);
  vxfclose(file);
  EXPECT_EQ(listed(place.path()), (std::set<std::string>{".", "..", longest}));
  EXPECT_EQ(unlink((place.path() + "/" + std::string(255, '\xE9')).c_str()), 0) << "the raw name";
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

TEST(Utf8Files, WithoutMemory) {
  char buffer[4];
  const fakes::FailingMalloc failing(0);
  EXPECT_EQ(utf8_readlink("/proc/self", buffer, 4), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(utf8_getcwd(buffer, 4), nullptr);
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

std::string joined(const char* directory, const char* name) {
  return c_unique_ptr<char>(path_concat(directory, name)).get();
}

TEST(Vxpath, JoinsPaths) {
  EXPECT_EQ(joined("/kiv", "tmp"), "/kiv/tmp");
  EXPECT_EQ(joined("/kiv/", nullptr), "/kiv/");
  EXPECT_EQ(joined(nullptr, "tmp"), "./tmp");
  EXPECT_EQ(path_concat(nullptr, nullptr), nullptr);
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

// Paths as text, and the files that they name.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
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
  in_locale("ISO-8859-15", [] {
    const TemporaryDirectory place;
    ASSERT_EQ(chdir(place.path().c_str()), 0);
    EXPECT_EQ(utf8_mkdir("d€", 0700), 0);
    EXPECT_EQ(closedir(utf8_opendir("d€")), 0);
    EXPECT_EQ(utf8_chdir("d€"), 0);
    EXPECT_EQ(utf8_chdir(".."), 0);
    EXPECT_EQ(utf8_rmdir("d€"), 0);
    EXPECT_EQ(utf8_mknod("d€", S_IFREG | 0600, 0), 0);
    EXPECT_EQ(vxfclose(utf8_fopen("d€", "r")), 0);
    EXPECT_EQ(utf8_link("d€", "€"), 0);
    EXPECT_EQ(utf8_unlink("d€"), 0);
    EXPECT_EQ(utf8_symlink("€", "d€"), 0);
    EXPECT_EQ(access("\xA4", R_OK), 0);
    char target[16];
    EXPECT_EQ(utf8_readlink("d€", target, sizeof target), 3);
    EXPECT_STREQ(target, "\xEF\xA2\xA4") << "names from the platform are transparent";
  });
}

// In a directory of their own.
class Utf8FilesInADirectory : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(chdir(place_.path().c_str()), 0); }
  void TearDown() override { ASSERT_EQ(chdir("/"), 0); }
  const TemporaryDirectory place_;
};

TEST_F(Utf8FilesInADirectory, TheLongestNameIsReadInTransparentBytes) {
  ASSERT_EQ(mkdir(std::string(255, '\xE9').c_str(), 0700), 0);
  DIR* directory = utf8_opendir(".");
  const c_unique_ptr<char> memory(static_cast<char*>(malloc(kUtf8DirentSize)));
  auto* entry = reinterpret_cast<dirent*>(memory.get());
  size_t longest = 0;
  while (vx_readdir(directory, entry) == entry) {
    longest = std::max(longest, strlen(memory.get() + offsetof(dirent, d_name)));
  }
  EXPECT_EQ(longest, 255 * 3U);
  closedir(directory);
}

TEST_F(Utf8FilesInADirectory, LinksAreReadCutAndRefused) {
  char buffer[11];
  vx_stat_record record;
  ASSERT_EQ(symlink("0123456789", "link"), 0);
  EXPECT_EQ(vx_lstat("link", &record), 0);
  EXPECT_EQ(vx_stat("link", &record), -1) << "it leads nowhere";
  EXPECT_EQ(utf8_readlink("link", buffer, 11), 10);
  EXPECT_EQ(utf8_readlink("link", buffer, 10), 9);
  EXPECT_STREQ(buffer, "012345678");
  ASSERT_EQ(symlink("\xE9", "other"), 0);
  EXPECT_EQ(utf8_readlink("other", buffer, 3), -1);
  EXPECT_EQ(errno, ERANGE);
}

TEST(Utf8Files, ConvertedPaths) {
  errno = EBUSY;
  EXPECT_STREQ(syscalls_utf8dec("/a\xEF\xA3\xA9"), "/a\xE9");
  EXPECT_EQ(errno, EBUSY);
  EXPECT_STREQ(syscalls_utf8dec("/etc\xEF\xA2"), "") << "never a part of a name";
}

TEST(Vxpath, TakesPathsApartAndCutsThemToTheBuffer) {
  const struct {
    const char* path;
    size_t size;
    std::string directory, base;
  } cases[] = {{"/usr/sbin///", 1024, "/usr", "sbin"},
               {"//a", 1024, "/", "a"},
               {"/usr/sbin/kivtrap", 6, "/usr", "kivtr"},
               {"kivtrap", 0, "!", "!"}};
  for (const auto& [path, size, directory, base] : cases) {
    char buffer[kPathComponentSize] = "!";
    EXPECT_EQ(vx_path_dirname(path, buffer, size), 0);
    EXPECT_EQ(buffer, directory) << path;
    EXPECT_EQ(vx_path_basename(path, buffer, size), 0);
    EXPECT_EQ(buffer, base) << path;
  }
  EXPECT_EQ(vx_path_dirname(nullptr, nullptr, 2), -1);
}

TEST(Vxpath, JoinsPaths) {
  EXPECT_STREQ(c_unique_ptr<char>(path_concat("/kiv/", "tmp")).get(), "/kiv/tmp");
  EXPECT_STREQ(c_unique_ptr<char>(path_concat("/kiv", nullptr)).get(), "/kiv/");
  EXPECT_STREQ(c_unique_ptr<char>(path_concat(nullptr, "tmp")).get(), "./tmp");
}

TEST(Progname, IsTheBaseNameUpToItsFirstDot) {
  char buffer[64];
  vx_set_progname("/opt/x.y/bin/KivTrap.Exe");
  vx_set_progname("");
  EXPECT_STREQ(vx_get_progname(buffer, sizeof buffer), "kivtrap");
}

}  // namespace

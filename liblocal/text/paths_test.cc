// Paths as text, and the files that they name.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/vx_error.h"
#include "liblocal/text/utf8.h"
#include "liblocal/text/utf8_files.h"
#include "liblocal/text/vxpath.h"
#include "tests/fakes.h"
#include "tests/locales.h"

namespace {

// Runs `body` in a new directory and in a locale that has '€', in a process of its own.
void in_directory(const std::function<void()>& body) {
  in_locale("ISO-8859-15", [&] {
    const TemporaryDirectory place;
    ASSERT_EQ(chdir(place.path().c_str()), 0);
    body();
  });
}

// Each wrapper finds what those before it left of files whose name has a '€'.
TEST(Utf8Files, PathsAreConverted) {
  in_directory([] {
    EXPECT_EQ(utf8_mkdir("d€", 0700), 0);
    EXPECT_EQ(closedir(utf8_opendir("d€")), 0);
    EXPECT_EQ(utf8_chdir("d€"), 0);
    EXPECT_NE(c_unique_ptr<char>(utf8_getcwd(nullptr, 4096)), nullptr);
    EXPECT_EQ(utf8_chdir(".."), 0);
    EXPECT_EQ(utf8_rmdir("d€"), 0);
    EXPECT_EQ(utf8_mknod("d€", S_IFREG | 0600, 0), 0);
    EXPECT_EQ(vxfclose(utf8_fopen("d€", "r")), 0);
    EXPECT_EQ(utf8_link("d€", "€"), 0);
    EXPECT_EQ(utf8_unlink("d€"), 0);
    EXPECT_EQ(utf8_symlink("€", "d€"), 0);
    EXPECT_EQ(access("\xA4", R_OK), 0);
    EXPECT_STREQ(syscalls_utf8dec("/etc\xEF\xA2"), "");  // never a part of a name
  });
}

TEST(Utf8Files, DirectoriesAreRead) {
  in_directory([] {
    machine::write_file(std::string(255, '\xA4'), "");
    std::string longest;
    for (int i = 0; i < 255; ++i) longest += "\xEF\xA2\xA4";
    DIR* directory = utf8_opendir(".");
    char area[kUtf8DirentSize];
    std::set<std::string> names;
    for (auto* entry = reinterpret_cast<dirent*>(area); vx_readdir(directory, entry) != nullptr;) {
      names.insert(area + offsetof(dirent, d_name));
    }
    EXPECT_THAT(names, testing::ElementsAre(".", "..", longest));
    closedir(directory);
  });
}

TEST(Utf8Files, LinksAreRead) {
  in_directory([] {
    char buffer[11];
    vx_stat_record record;
    ASSERT_EQ(symlink("0123456\xA4", "link"), 0);
    EXPECT_EQ(vx_lstat("link", &record), 0);
    EXPECT_EQ(vx_stat("link", &record), -1);  // it leads nowhere
    EXPECT_EQ(utf8_readlink("link", buffer, 11), 10);
    EXPECT_STREQ(buffer, "0123456\xEF\xA2\xA4");
    EXPECT_EQ(utf8_readlink("link", buffer, 9), -1);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(utf8_readlink("link", buffer, 8), 7);
    EXPECT_EQ(utf8_readlink(".", buffer, 8), -1);
    const fakes::FailingMalloc none(0);
    EXPECT_EQ(utf8_readlink("link", buffer, 8), -1);
    EXPECT_EQ(utf8_link("link", "other"), -1);
  });
}

TEST(Vxpath, TakesPathsApart) {
  const std::string longest(1022, 'x');
  const struct {
    std::string path;
    size_t size;
    std::string directory, base;
  } cases[] = {{"/usr/sbin///", 5, "/usr", "sbin"},
               {"//a", 64, "/", "a"},
               {"/", 64, "/", ""},
               {"/" + longest + "yz", 1024, "/", longest},
               {"/usr/sbin/kivtrap", 6, "/usr", "kivtr"},
               {"name", 4, ".", "nam"},
               {"kivtrap", 0, "!", "!"}};
  for (const auto& [path, size, directory, base] : cases) {
    char buffer[1024] = "!";
    EXPECT_EQ(vx_path_dirname(path.c_str(), buffer, size), 0);
    EXPECT_EQ(buffer, directory);
    EXPECT_EQ(vx_path_basename(path.c_str(), buffer, size), 0);
    EXPECT_EQ(buffer, base);
  }
  EXPECT_EQ(vx_path_basename(nullptr, nullptr, 2), -1);
  EXPECT_EQ(vx_error_get_last(), vx_error_from_errno(EINVAL));
  char unchanged = '!';
  EXPECT_EQ(vx_path_dirname(nullptr, &unchanged, 1), -1);
  EXPECT_EQ(path_concat(nullptr, nullptr), nullptr);
  EXPECT_STREQ(c_unique_ptr<char>(path_concat(nullptr, "b")).get(), "./b");
}

}  // namespace

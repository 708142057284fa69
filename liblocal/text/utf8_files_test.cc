#include "liblocal/text/utf8_files.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>

#include "liblocal/text/mbt.h"
#include "liblocal/text/utf8.h"
#include "tests/failing_malloc.h"
#include "tests/locales.h"

namespace {

std::string transparent(const std::string& raw) {
  std::string carried(3 * raw.size() + 5, '\0');
  EXPECT_EQ(vx_mbstombts(carried.data(), raw.c_str(), carried.size()), 1);
  return carried.c_str();
}

std::set<std::string> listed(const std::string& path) {
  std::set<std::string> names;
  DIR* directory = utf8_opendir(path.c_str());
  auto* entry = static_cast<dirent*>(malloc(kUtf8DirentSize));
  while (vx_readdir(directory, entry) != nullptr) {
    const char* name = reinterpret_cast<char*>(entry) + offsetof(dirent, d_name);
    if (name[0] != '.') names.insert(name);
  }
  free(entry);
  closedir(directory);
  return names;
}

TEST(Utf8Files, EveryByteInANameRoundTrips) {
  for (const char* codeset : {"", "EUC-JP", "UTF-8"}) {
    in_locale(codeset, [] {
      TemporaryDirectory place;
      std::set<std::string> names;
      for (int byte = 1; byte < 256; ++byte) {
        if (byte == '/') continue;
        const std::string raw = std::string("n") + static_cast<char>(byte);
        const std::string name = transparent(raw);
        const std::string path = place.path() + "/" + name;
        names.insert(name);
        FILE* file = utf8_fopen(path.c_str(), "w");
        fputc(byte, file);
        vxfclose(file);
        ASSERT_EQ(access((place.path() + "/" + raw).c_str(), F_OK), 0) << "the raw name";
        ASSERT_EQ(utf8_link(path.c_str(), (path + "h").c_str()), 0);
        ASSERT_EQ(utf8_symlink(name.c_str(), (path + "s").c_str()), 0);
        char target[32];
        ASSERT_EQ(utf8_readlink((path + "s").c_str(), target, sizeof target),
                  static_cast<ssize_t>(name.size()));
        ASSERT_EQ(target, name);
        file = utf8_fopen((path + "s").c_str(), "r");
        ASSERT_EQ(fgetc(file), byte);
        vxfclose(file);
        ASSERT_EQ(utf8_unlink((path + "h").c_str()) + utf8_unlink((path + "s").c_str()), 0);
      }
      EXPECT_EQ(listed(place.path()), names);
      for (const std::string& name : names) utf8_unlink((place.path() + "/" + name).c_str());
      EXPECT_EQ(listed(place.path()).size(), 0U);
    });
  }
}

TEST(Utf8Files, TheOtherCalls) {
  in_locale("ISO-8859-15", [] {
    TemporaryDirectory place;
    const std::string text = place.path() + "/d€";
    const char* path = text.c_str();
    const utimbuf times = {7, 9};
    EXPECT_EQ(utf8_mkdir(path, 0755) + utf8_chmod(path, 0700), 0);
    EXPECT_EQ(utf8_chown(path, getuid(), getgid()) + utf8_utime(path, &times), 0);
    struct stat status;
    EXPECT_EQ(utf8_lstat(path, &status), 0);
    EXPECT_EQ(status.st_mtime, 9);
    vx_stat_record record;
    EXPECT_EQ(vx_stat(path, &record), 0);
    EXPECT_EQ(record.mode, kVxDirectory | 0700);
    EXPECT_EQ(utf8_symlink("d€", (text + "l").c_str()), 0);
    EXPECT_EQ(vx_lstat((text + "l").c_str(), &record), 0);
    EXPECT_EQ(record.mode & kVxTypeMask, kVxSymbolicLink);
    const std::string fifo = text + "/f";
    EXPECT_EQ(utf8_mknod(fifo.c_str(), S_IFIFO | 0600, 0), 0);
    EXPECT_EQ(utf8_access(fifo.c_str(), R_OK) + utf8_unlink(fifo.c_str()), 0);

    EXPECT_EQ(utf8_chdir(path), 0);
    const std::string wanted = place.path() + "/d" + "\xEF\xA2\xA4";
    char buffer[128];
    EXPECT_STREQ(brix_getcwd(buffer, sizeof buffer), wanted.c_str());
    char* made = utf8_getcwd(nullptr, wanted.size() + 2);
    EXPECT_STREQ(made, wanted.c_str());
    free(made);
    EXPECT_EQ(utf8_getcwd(buffer, wanted.size()), nullptr);
    EXPECT_EQ(utf8_chdir("/") + utf8_rmdir(path), 0);
    tm time = {};
    EXPECT_STREQ(vxstrptime("2026-03-01 €", "%Y-%m-%d", &time), " \xA4");
    EXPECT_EQ(time.tm_mon, 2);
  });
}

TEST(Utf8Files, Failures) {
  TemporaryDirectory place;
  const std::string path = place.path() + "/l";
  const char* link = path.c_str();
  char buffer[11];
  ASSERT_EQ(utf8_symlink("0123456789", link), 0);
  EXPECT_EQ(utf8_readlink(link, buffer, 11), 10);
  EXPECT_EQ(utf8_readlink(link, buffer, 10), 9);
  EXPECT_STREQ(buffer, "012345678");
  ASSERT_EQ(utf8_unlink(link) + utf8_symlink("\xEF\xA3\xA9", link), 0);
  EXPECT_EQ(utf8_readlink(link, buffer, 3), -1);
  EXPECT_EQ(errno, ERANGE);

  errno = EBUSY;
  EXPECT_STREQ(syscalls_utf8dec("/a\xEF\xA3\xA9"), "/a\xE9");
  EXPECT_EQ(errno, EBUSY);
  EXPECT_STREQ(syscalls_utf8dec("/etc\xEF\xA2"), "") << "never a part of a name";
  EXPECT_EQ(utf8_access(std::string(20000, 'x').c_str(), F_OK), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);

  FailingMalloc failing(0);
  EXPECT_EQ(utf8_link("/a", "/b"), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(utf8_readlink(link, buffer, 4), -1);
  EXPECT_EQ(utf8_getcwd(buffer, 4), nullptr);
}

}  // namespace

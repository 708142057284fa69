// Full path names over a tree of real directories and links.
#include "liblocal/startup/fullp_ux.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "tests/locales.h"
#include "tests/machine.h"
#include "tests/work.h"

namespace {

namespace fs = std::filesystem;

constexpr unsigned kFollow = kFullpathFollow, kSlash = kFullpathDirectorySlash;

// In a tree of its own.
class Fullpath : public testing::Test {
 protected:
  void SetUp() override {
    fs::current_path(t);
    const std::string make_tree =
        "set -e; mkdir dir; touch dir/file; ln -s dir link_dir; ln -s dir/file link_file;"
        "ln -s ../link_file dir/up; ln -s nowhere broken; ln -s $PWD/dir/file absolute;"
        "ln -s dir/file l1;"
        "for i in $(seq 19); do ln -s l$i l$((i + 1)); done";  // l19: 19 links
    ASSERT_EQ(system(make_tree.c_str()), 0);
  }
  void TearDown() override { fs::current_path("/"); }

  const TemporaryDirectory place;
  const std::string& t = place.path();
};

// The full name of `path`, or the name of the error. The output takes the place of the path.
std::string resolved(const std::string& path, unsigned flags, size_t size = kPathSize) {
  auto open_files = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
  const auto before = std::pair(fs::current_path(), open_files());
  std::string text = path + std::string(size + 1, '\0');
  errno = 0;
  const char* result = fullpath2(text.data(), text.data(), size, flags);
  std::string answer = result == nullptr ? strerrorname_np(errno) : result;
  EXPECT_EQ(std::pair(fs::current_path(), open_files()), before) << path;
  return answer;
}

struct Name {
  std::string path, full;
};

TEST_F(Fullpath, WithoutFlags) {
  const Name names[] = {{"///", "/"},
                        {t + "/dir///", t + "/dir"},
                        {t + "/dir/file/", t + "/dir/file"},
                        {t + "/broken", t + "/broken"},
                        {"", "ENOENT"},
                        {"dir/file/", "ENOTDIR"},
                        {t + "//dir//file", t + "/dir/file"},
                        {t + "/dir/..", t},
                        {t + "/link_dir/up", t + "/dir/up"},
                        {"../../", "/"},
                        {"../../bin", "/bin"}};
  for (const Name& name : names) EXPECT_EQ(resolved(name.path, 0), name.full) << name.path;
}

TEST_F(Fullpath, FollowsLinks) {
  const Name names[] = {{t + "/link_dir", t + "/dir"},
                        {t + "/absolute", t + "/dir/file"},
                        {"l19", t + "/dir/file"},
                        {"l20", "ELOOP"},
                        {"broken", "ENOENT"}};
  for (const Name& name : names) EXPECT_EQ(resolved(name.path, kFollow), name.full) << name.path;
}

TEST_F(Fullpath, EndsDirectoriesWithASlash) {
  EXPECT_EQ(resolved(t + "/dir", kSlash), t + "/dir/");
  EXPECT_EQ(resolved("../..", kSlash), "/");
  EXPECT_EQ(resolved(t + "/link_dir", kSlash | kFollow), t + "/dir/");
}

TEST_F(Fullpath, FitsItsOutput) {
  EXPECT_EQ(fullpath2("/", nullptr, 9, 0), nullptr);
  const std::string file = t + "/dir/file", link = t + "/link_file", directory = t + "/dir";
  EXPECT_EQ(resolved(file, 0, file.size()), "ENAMETOOLONG");
  EXPECT_EQ(resolved(file, 0, file.size() + 1), file);
  EXPECT_EQ(resolved("link_file", 0, link.size()), "ENAMETOOLONG");
  EXPECT_EQ(resolved("link_file", 0, link.size() + 1), link);
  EXPECT_EQ(resolved("dir", kSlash, directory.size()), "ERANGE");
  EXPECT_EQ(resolved("dir", kSlash, directory.size() + 1), directory) << "no room for the slash";
  EXPECT_EQ(resolved("dir", kSlash, directory.size() + 2), directory + "/");
}

TEST_F(Fullpath, LongPathsAndLinks) {
  EXPECT_EQ(resolved(std::string(kPathSize, '/') + "tmp", 0), "ENAMETOOLONG");
  // A byte that is no text takes three: this link's text is 11533 bytes long.
  const std::string odd(255, '\x80');
  std::string text = odd + "/f";
  fs::create_directory(odd);
  machine::write_file(text, "");
  for (int i = 0; i < 14; ++i) text = odd + "/../" + text;
  fs::create_symlink(text, "odd");
  const std::string path = "." + std::string(754, '/') + "odd";
  EXPECT_EQ(resolved(path, kFollow), "ENAMETOOLONG");
}

TEST_F(Fullpath, DeeperThanAPathCanBe) {
  std::string path = t;
  for (int i = 0; i < 20; ++i) {
    const std::string name(255, 'n');
    path += "/" + name;
    ASSERT_EQ(mkdir(name.c_str(), 0755), 0);
    ASSERT_EQ(chdir(name.c_str()), 0);
  }
  ASSERT_EQ(system("mkdir sub; touch file sub/file"), 0);
  EXPECT_EQ(resolved("file", 0), path + "/file");
  EXPECT_EQ(resolved("sub", 0), "ENAMETOOLONG") << "there, but not back by name";
  EXPECT_EQ(printed(1, [&] { resolved("sub/file", 0, path.size() + 9); }),
            "kivtrap: " + path + "/sub/file path is too long\n" +
                "kivtrap: fullpath(sub/file) cannot restore cwd to " + path +
                ": File name too long\n");
}

TEST_F(Fullpath, ClosedDirectories) {
  if (!machine::has_users()) return MachineTest::skip("no users but root here");
  ASSERT_EQ(chmod(t.c_str(), 0755), 0);
  ASSERT_EQ(mkdir("shut", 0744), 0);
  ASSERT_EQ(seteuid(machine::kUser), 0);
  EXPECT_EQ(resolved("shut", 0), "EACCES");
  EXPECT_EQ(seteuid(0), 0);
}

}  // namespace

// Full path names over a tree of real directories and links, on the test machine.
#include "liblocal/startup/fullp_ux.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "tests/fakes.h"
#include "tests/machine.h"
#include "tests/work.h"

namespace {

namespace fs = std::filesystem;

constexpr unsigned kFollow = kFullpathFollow, kSlash = kFullpathDirectorySlash;

// The tree is /t.
class Fullpath : public MachineTest {
 protected:
  void SetUp() override {
    MachineTest::SetUp();
    if (IsSkipped()) return;
    const char make_tree[] =
        "set -e; rm -rf /t; mkdir -p /t/dir; cd /t;"
        "touch dir/file dir/.hidden ../t.file;"
        "ln -s dir link_dir; ln -s dir/file link_file; ln -s ../link_file dir/up;"
        "ln -s nowhere broken; ln -s /t/dir/file absolute; ln -s /t.file above; ln -s dir/file l1;"
        "for i in $(seq 19); do ln -s l$i l$((i + 1)); done";  // l19: 19 links
    ASSERT_EQ(system(make_tree), 0);
    fs::current_path("/t");
  }
  void TearDown() override { fs::current_path("/"); }
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

// The debug lines of a call.
std::string lines(int level, const std::string& path, unsigned flags, size_t size = kPathSize) {
  return printed(level, [&] { resolved(path, flags, size); });
}

struct Name {
  const char *path, *full;
};

TEST_F(Fullpath, WithoutFlags) {
  const Name names[] = {{"///", "/"},
                        {"/t/dir///", "/t/dir"},
                        {"/t/dir/file/", "/t/dir/file"},
                        {"/t/broken", "/t/broken"},
                        {"", "ENOENT"},
                        {"dir/file/", "ENOTDIR"},
                        {"/t//dir//file", "/t/dir/file"},
                        {"/t/dir/..", "/t"},
                        {"/t/link_dir/up", "/t/dir/up"},
                        {"/t/dir/.hidden", "/t/dir/.hidden"},
                        {"../", "/"},
                        {"link_dir/", "/t/dir"}};
  for (const Name& name : names) EXPECT_EQ(resolved(name.path, 0), name.full) << name.path;
}

TEST_F(Fullpath, FollowsLinks) {
  const Name names[] = {{"/t/link_dir", "/t/dir"}, {"/t/absolute", "/t/dir/file"},
                        {"/t/above", "/t.file"},   {"l19", "/t/dir/file"},
                        {"l20", "ELOOP"},          {"broken", "ENOENT"}};
  for (const Name& name : names) EXPECT_EQ(resolved(name.path, kFollow), name.full) << name.path;
}

TEST_F(Fullpath, EndsDirectoriesWithASlash) {
  EXPECT_EQ(resolved("/t/dir", kSlash), "/t/dir/");
  EXPECT_EQ(resolved("..", kSlash), "/");
  EXPECT_EQ(resolved("/t/dir/file", kSlash), "/t/dir/file");
  EXPECT_EQ(resolved("/t/link_dir", kSlash | kFollow), "/t/dir/");
}

TEST_F(Fullpath, WithoutArguments) {
  char output[9];
  EXPECT_EQ(fullpath2(nullptr, output, sizeof output, 0), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(fullpath2("/", nullptr, sizeof output, 0), nullptr);
  EXPECT_EQ(fullpath2("/", output, 0, 0), nullptr);
  EXPECT_STREQ(fullpath("dir/../link_file"), "/t/link_file");
}

TEST_F(Fullpath, FitsItsOutput) {
  EXPECT_EQ(resolved("/t/dir/file", 0, 11), "ENAMETOOLONG");
  EXPECT_EQ(resolved("/t/dir/file", 0, 12), "/t/dir/file");
  EXPECT_EQ(resolved("link_file", 0, 12), "ENAMETOOLONG");
  EXPECT_EQ(resolved("link_file", 0, 13), "/t/link_file");
  EXPECT_EQ(resolved("dir", kSlash, 6), "ERANGE");
  EXPECT_EQ(resolved("dir", kSlash, 7), "/t/dir") << "no room for the slash";
  EXPECT_EQ(resolved("dir", kSlash, 8), "/t/dir/");
}

TEST_F(Fullpath, GivesTheReasonInDebugLines) {
  struct Row {
    const char* path;
    unsigned flags;
    size_t size;
    std::string line;
  };
  const Row rows[] = {
      {"/t/nowhere", 0, 9, "cannot stat /t/nowhere\n"},
      {"l20", kFollow, 9,
       "fullpath too many symlink loops for l20: Too many levels of symbolic links\n"},
      {"dir", 0, 6, "getcwd failed on dir\n"},
      {"dir/file", 0, 6, "fullpath getcwd failed on dir\n"}};
  for (const Row& row : rows) {
    EXPECT_EQ(lines(0, row.path, row.flags, row.size), "");
    EXPECT_EQ(lines(1, row.path, row.flags, row.size), "kivtrap: " + row.line);
  }
  EXPECT_EQ(lines(3, "l2", kFollow), "kivtrap: fullpath follow_path returns `dir/file'\n");
}

TEST_F(Fullpath, WithoutMemory) {
  auto lines_without = [](int allocation) {
    return printed(1, [allocation] {
      char output[kPathSize];
      const fakes::FailingMalloc failing(allocation, 1);
      EXPECT_EQ(fullpath2("l2", output, sizeof output, kFollow), nullptr);
    });
  };
  lines(1, "l2", kFollow);  // what a thread keeps is there now
  EXPECT_EQ(lines_without(0), "kivtrap: fullpath(l2): cannot determine current directory\n");
  EXPECT_EQ(lines_without(1),
            "kivtrap: fullpath could not readlink on l2: Cannot allocate memory\n");
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
  const std::pair<size_t, const char*> rows[] = {{754, "kivtrap: fullpath could not lstat ./"},
                                                 {755, "kivtrap: fullpath path name too long ./"}};
  for (const auto& [length, line] : rows) {
    const std::string path = "." + std::string(length - 1, '/') + "odd";
    EXPECT_EQ(resolved(path, kFollow), "ENAMETOOLONG");
    EXPECT_THAT(lines(1, path, kFollow), testing::StartsWith(line));
  }
}

TEST_F(Fullpath, DeeperThanAPathCanBe) {
  std::string path = "/t";
  for (int i = 0; i < 20; ++i) {
    const std::string name(255, 'n');
    path += "/" + name;
    ASSERT_EQ(mkdir(name.c_str(), 0755), 0);
    ASSERT_EQ(chdir(name.c_str()), 0);
  }
  ASSERT_EQ(system("mkdir sub; touch file sub/file"), 0);
  EXPECT_EQ(resolved("file", 0), path + "/file");
  EXPECT_EQ(resolved("sub", 0), "ENAMETOOLONG") << "there, but not back by name";
  EXPECT_EQ(lines(1, "sub/file", 0, path.size() + 9),
            "kivtrap: " + path + "/sub/file path is too long\n" +
                "kivtrap: fullpath(sub/file) cannot restore cwd to " + path +
                ": File name too long\n");
}

TEST_F(Fullpath, ClosedDirectories) {
  if (!machine::has_users()) return skip("no users but root here");
  ASSERT_EQ(mkdir("shut", 0744), 0);
  ASSERT_EQ(seteuid(machine::kUser), 0);
  EXPECT_EQ(lines(1, "shut", 0), "kivtrap: cannot chdir to shut: Permission denied\n");
  EXPECT_EQ(seteuid(0), 0);
}

}  // namespace

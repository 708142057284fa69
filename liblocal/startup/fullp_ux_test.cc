// Full path names over a tree of real directories and links, in the lab.
#include "liblocal/startup/fullp_ux.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <tuple>

#include "tests/failing_malloc.h"
#include "tests/lab.h"
#include "tests/printed.h"

namespace {

namespace fs = std::filesystem;

constexpr unsigned kPlain = 0, kFollow = kFullpathFollow, kSlash = kFullpathDirectorySlash;

class Fullpath : public LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    start = fs::current_path();
    root = "/fullpath." + std::to_string(getpid());  // in the lab's own root directory
    for (const char* name : {"/dir", "/.dot", "/deep/er"}) fs::create_directories(root + name);
    for (const char* name : {"/dir/file", "/dir/.hidden", "/.dot/file"}) {
      lab::write_file(root + name, "");
    }
    lab::write_file(root + ".file", "");
    const std::pair<std::string, std::string> links[] = {
        {"dir", "link_dir"},        {"dir/file", "link_file"},
        {"../link_file", "dir/up"}, {"loop", "loop"},
        {"nowhere", "broken"},      {root + "/dir/file", "absolute"},
        {root + ".file", "above"},  {"../../dir/../dir/up", "deep/er/way"}};
    for (const auto& [target, name] : links) fs::create_symlink(target, root + "/" + name);
    for (int i = 1; i <= 20; ++i) {  // so many links from there
      fs::create_symlink(i == 1 ? "dir/file" : "chain" + std::to_string(i - 1),
                         root + "/chain" + std::to_string(i));
    }
    fs::current_path(root);
  }
  void TearDown() override {
    if (root.empty()) return;
    fs::current_path(start);
    fs::remove_all(root);
    fs::remove(root + ".file");
  }

  // '@' stands for the root of the tree.
  std::string in_tree(std::string text) const {
    for (size_t at = 0; (at = text.find('@', at)) != text.npos; at += root.size()) {
      text.replace(at, 1, root);
    }
    return text;
  }

  // The answer, or the name of the error; and the process stays where it was.
  std::string resolved(const std::string& path, unsigned flags, size_t size = kPathSize) const {
    struct stat before, after;
    EXPECT_EQ(stat(".", &before), 0);
    std::string output(size, 'x');
    errno = 0;
    char* result = fullpath2(in_tree(path).c_str(), output.data(), size, flags);
    int error = errno;
    EXPECT_EQ(stat(".", &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino) << path;
    if (result == nullptr) return strerrorname_np(error);
    EXPECT_EQ(result, output.data());
    output.resize(strlen(result));
    return output;
  }

  // What a failing call says in debug lines of `level`.
  std::string told(int level, const std::string& path, unsigned flags, size_t size = kPathSize) {
    return printed(level, [&] { static_cast<void>(resolved(path, flags, size)); });
  }

  std::string root;
  fs::path start;
};

TEST_F(Fullpath, Names) {
  // Each path and, behind it, its full name or the error.
  const std::pair<unsigned, const char*> cases[] = {
      // absolute, and their own answer
      {kPlain, "/ /  /// /  @ @  @/dir/// @/dir  @/dir/file/ @/dir/file  @/broken @/broken"},
      {kPlain, "@/link_dir @/link_dir  @/nowhere ENOENT"},
      {kFollow, "@/dir/file @/dir/file"},
      // found by going there
      {kPlain, "@/dir/../dir/file @/dir/file  @/dir/.. @  @/./dir @/dir  @//dir//file @/dir/file"},
      {kPlain, "@/link_dir/up @/dir/up  @/.dot/file @/.dot/file  @/dir/.hidden @/dir/.hidden"},
      {kPlain, "dir @/dir  dir/file @/dir/file  ../ /  link_file @/link_file  link_dir/ @/dir"},
      {kPlain, "link_dir/../link_dir/up @/dir/up  loop @/loop  dir/file/ ENOTDIR"},
      {kFollow, "@/link_dir @/dir  @/link_dir/up @/dir/file  @/absolute @/dir/file"},
      {kFollow, "@/above @.file  deep/er/way @/dir/file  link_file @/dir/file"},
      {kFollow, "chain19 @/dir/file  chain20 ELOOP  loop ELOOP  broken ENOENT  dir/file/x ENOTDIR"},
      {kSlash, "/ /  .. /  @/dir @/dir/  @/dir/file @/dir/file  @/link_dir @/link_dir"},
      {kSlash, "@.file @.file"},
      {kSlash | kFollow, "@/link_dir @/dir/"},
  };
  for (const auto& [flags, table] : cases) {
    std::istringstream words(table);
    for (std::string path, wanted; words >> path >> wanted;) {
      EXPECT_EQ(resolved(path, flags), in_tree(wanted)) << path << " " << flags;
    }
  }
  EXPECT_EQ(resolved("", kPlain), "ENOENT");
  EXPECT_EQ(fullpath("dir/../link_file"), in_tree("@/link_file"));
}

TEST_F(Fullpath, OutputSizes) {
  const std::tuple<unsigned, const char*, const char*, const char*> cases[] = {
      {kPlain, "@/dir/file", "@/dir/file", "ENAMETOOLONG"},
      {kFollow, "chain3", "@/dir/file", "ENAMETOOLONG"},
      {kPlain, "link_file", "@/link_file", "ENAMETOOLONG"},
      {kPlain, "dir", "@/dir", "ERANGE"},
      {kSlash, "dir", "@/dir", "ERANGE"}};
  for (const auto& [flags, path, wanted, error] : cases) {
    const std::string name = in_tree(wanted);
    EXPECT_EQ(resolved(path, flags, name.size()), error) << path;
    EXPECT_EQ(resolved(path, flags, name.size() + 1), name) << path;
    EXPECT_EQ(resolved(path, flags, name.size() + 2), name + (flags == kSlash ? "/" : "")) << path;
  }
  EXPECT_EQ(resolved("/", kPlain, 2), "/");
  EXPECT_EQ(resolved("..", kSlash, 1), "ERANGE");
}

TEST_F(Fullpath, LongNames) {
  const std::string component(255, 'n');
  EXPECT_EQ(resolved("@/" + component + "n", kPlain), "ENAMETOOLONG");
  EXPECT_EQ(resolved(std::string(kPathSize, '/') + "tmp", kPlain), "ENAMETOOLONG");
  std::string path = root;
  for (int i = 0; i < 20; ++i, path += "/" + component) {  // deeper than the system takes at once
    ASSERT_EQ(mkdir(component.c_str(), 0755), 0);
    ASSERT_EQ(chdir(component.c_str()), 0);
  }
  lab::write_file("file", "");
  EXPECT_EQ(resolved("file", kPlain), path + "/file");
  // Into the directory itself it gets, but by that name not back.
  EXPECT_EQ(resolved(".", kPlain), "ENAMETOOLONG");
  EXPECT_EQ(told(1, "./file", kPlain),
            "kivtrap: fullpath(./file) cannot restore cwd to " + path + ": File name too long\n");
  EXPECT_EQ(told(1, path, kPlain), "kivtrap: cannot stat " + path + "\n");
}

TEST_F(Fullpath, WithoutMemory) {
  static_cast<void>(resolved("chain2", kFollow));  // what a thread keeps is there now
  const char* cases[] = {"fullpath(chain2): cannot determine current directory",
                         "fullpath could not readlink on chain2: Cannot allocate memory",
                         "fullpath could not readlink on chain1: Cannot allocate memory"};
  int granted = 0;
  for (const char* line : cases) {
    auto resolve = [&granted] {
      FailingMalloc failing(granted++, 1);
      char output[kPathSize];
      EXPECT_EQ(fullpath2("chain2", output, sizeof output, kFollow), nullptr);
    };
    EXPECT_EQ(printed(1, resolve), std::string("kivtrap: ") + line + "\n");
  }
  EXPECT_EQ(fs::current_path(), root);
}

TEST_F(Fullpath, ClosedDirectories) {
  if (!lab::has_users()) return skip("no users but root here");
  fs::create_directories(root + "/shut/open");
  fs::create_directory(root + "/unsearchable");
  lab::write_file("shut/open/file", "");
  chmod("unsearchable", 0744);
  ASSERT_EQ(seteuid(lab::kUser), 0);
  EXPECT_EQ(told(1, "unsearchable", kPlain),
            "kivtrap: cannot chdir to unsearchable: Permission denied\n");
  ASSERT_EQ(chdir("shut/open"), 0);
  ASSERT_EQ(seteuid(0), 0);
  chmod((root + "/shut").c_str(), 0700);
  ASSERT_EQ(seteuid(lab::kUser), 0);
  EXPECT_EQ(resolved("file", kPlain), in_tree("@/shut/open/file"));
  EXPECT_EQ(resolved("@/shut/open/file", kPlain), "EACCES");
  EXPECT_EQ(told(1, "./file", kPlain), in_tree("kivtrap: fullpath(./file) cannot restore cwd to "
                                               "@/shut/open: Permission denied\n"));
  EXPECT_EQ(seteuid(0), 0);
}

}  // namespace

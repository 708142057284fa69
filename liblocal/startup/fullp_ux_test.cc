// Full path names over a tree of real directories and links, in the test machine.
#include "liblocal/startup/fullp_ux.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <regex>
#include <set>

#include "tests/fakes.h"
#include "tests/machine.h"
#include "tests/work.h"

namespace {

namespace fs = std::filesystem;

constexpr unsigned kPlain = 0, kFollow = kFullpathFollow, kSlash = kFullpathDirectorySlash;

// The tree is the test machine's own /t.
class Fullpath : public MachineTest {
 protected:
  void SetUp() override {
    MachineTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    const char make_tree[] =
        "set -e; rm -rf /t; mkdir -p /t/dir /t/.dot /t/deep/er; cd /t;"
        "touch dir/file dir/.hidden .dot/file ../t.file;"
        "ln -s dir link_dir; ln -s dir/file link_file; ln -s ../link_file dir/up; ln -s loop loop;"
        "ln -s nowhere broken; ln -s /t/dir/file absolute; ln -s /t.file above;"
        "ln -s ../../dir/../dir/up deep/er/way; ln -s dir/file chain1;"
        "for i in $(seq 19); do ln -s chain$i chain$((i + 1)); done";  // so many links from there
    ASSERT_EQ(system(make_tree), 0);
    fs::current_path("/t");
  }
  void TearDown() override { fs::current_path("/"); }

  // The answer, put in the place of the path, or the name of the error. The process stays
  // where it was, nothing stays open, and nothing is written behind the output.
  std::string resolved(const std::string& path, unsigned flags, size_t size = kPathSize) const {
    auto place = [] {
      const fs::directory_iterator descriptors("/proc/self/fd");
      return std::pair(fs::current_path(), std::distance(descriptors, {}));
    };
    const auto before = place();
    std::string text = path + '\0' + std::string(size + 9, 'x');
    errno = 0;
    const char* result = fullpath2(text.data(), text.data(), size, flags);
    const std::string answer = result == nullptr ? strerrorname_np(errno) : result;
    EXPECT_TRUE(result == nullptr || result == text.data());
    EXPECT_EQ(place(), before) << path;
    EXPECT_EQ(text.find_first_not_of('x', std::max(size, path.size() + 1)), text.npos) << path;
    return answer;
  }

  // What a call says in debug lines of `level`, each without its "kivtrap: ".
  std::string told(int level, const std::string& path, unsigned flags, size_t size = kPathSize) {
    const std::string lines = printed(level, [&] { resolved(path, flags, size); });
    return std::regex_replace(lines, std::regex("kivtrap: "), "");
  }
};

TEST_F(Fullpath, Names) {
  const std::pair<unsigned, const char*> cases[] = {
      // each path and its full name or error
      {kPlain,
       "/ /  /// /  /t /t  /t/dir/// /t/dir  /t/dir/file/ /t/dir/file  /t/broken /t/broken  "
       "/t/link_dir /t/link_dir  /t/nowhere ENOENT  dir/file/ ENOTDIR  /t//dir//file /t/dir/file  "
       "/t/dir/../dir/file /t/dir/file  /t/dir/.. /t  /t/./dir /t/dir  /t/link_dir/up /t/dir/up  "
       "/t/.dot/file /t/.dot/file  /t/dir/.hidden /t/dir/.hidden  dir /t/dir  "
       "dir/file /t/dir/file  ../ /  loop /t/loop  link_dir/ /t/dir  link_dir/../link_dir/up "
       "/t/dir/up"},
      {kFollow,
       "/t/dir/file /t/dir/file  /t/link_dir /t/dir  /t/link_dir/up /t/dir/file  "
       "/t/absolute /t/dir/file  /t/above /t.file  deep/er/way /t/dir/file  link_file /t/dir/file  "
       "chain19 /t/dir/file  chain20 ELOOP  loop ELOOP  broken ENOENT  dir/file/x ENOTDIR"},
      {kSlash, "/ /  .. /  /t/dir /t/dir/  /t/dir/file /t/dir/file  /t.file /t.file"},
      {kSlash | kFollow, "/t/link_dir /t/dir/"}};
  for (const auto& [flags, table] : cases) {
    std::istringstream words(table);
    for (std::string path, wanted; words >> path >> wanted;) {
      EXPECT_EQ(resolved(path, flags), wanted) << path << " " << flags;
    }
  }
  EXPECT_EQ(resolved("", kPlain), "ENOENT");
  EXPECT_STREQ(fullpath("dir/../link_file"), "/t/link_file");
  char output[9];
  EXPECT_TRUE(fullpath2(nullptr, output, 9, kPlain) == nullptr && errno == EINVAL);
  EXPECT_TRUE(fullpath2("/", nullptr, 9, kPlain) == nullptr && errno == EINVAL);
  EXPECT_EQ(resolved("/", kPlain, 0), "EINVAL");
}

TEST_F(Fullpath, OutputSizes) {
  const std::tuple<unsigned, const char*, std::string> cases[] = {
      {kPlain, "/t/dir/file", "/t/dir/file"},
      {kFollow, "chain3", "/t/dir/file"},
      {kPlain, "link_file", "/t/link_file"},
      {kPlain, "dir", "/t/dir"},
      {kSlash, "dir", "/t/dir"},
      {kSlash, "..", "/"},
      {kPlain, "/", "/"}};
  for (const auto& [flags, path, name] : cases) {
    const char* error = name.ends_with("file") ? "ENAMETOOLONG" : "ERANGE";
    const bool slash = flags == kSlash && name != "/";
    EXPECT_EQ(resolved(path, flags, name.size()), error) << path;
    EXPECT_EQ(resolved(path, flags, name.size() + 1), name) << path;
    EXPECT_EQ(resolved(path, flags, name.size() + 2), name + (slash ? "/" : "")) << path;
  }
}

TEST_F(Fullpath, WhatIsTold) {
  const std::tuple<unsigned, const char*, size_t, std::string, std::string> cases[] = {
      {kPlain, "/t/nowhere", 7, "cannot stat /t/nowhere\n", ""},
      {kFollow, "chain20", 7,
       "fullpath too many symlink loops for chain20: Too many levels of symbolic links\n", ""},
      {kFollow, "chain2", 7, "/t/dir/file path is too long\n",
       "fullpath follow_path returns `dir/file'\n"},
      {kPlain, "link_file", 7, "/t/link_file path is too long\n", ""},
      {kPlain, "dir", 6, "getcwd failed on dir\n", ""},
      {kPlain, "dir/file", 6, "fullpath getcwd failed on dir\n",
       "fullpath failed to get the new cwd\n"}};
  for (const auto& [flags, path, size, line, at_3] : cases) {
    EXPECT_EQ(told(0, path, flags, size), "") << path;
    EXPECT_EQ(told(1, path, flags, size), line) << path;
    const std::string more = told(3, path, flags, size);
    EXPECT_TRUE(more == line + at_3 || more == at_3 + line) << more;
  }
  // Each allocation of a call refused in turn, until one does without.
  std::set<std::string> lines;
  told(1, "chain2", kFollow);  // what a thread keeps is there now
  for (int granted = 0; !lines.contains(""); ++granted) {
    lines.insert(printed(1, [granted] {
      fakes::FailingMalloc failing(granted, 1);
      char output[kPathSize];
      static_cast<void>(fullpath2("chain2", output, sizeof output, kFollow));
    }));
  }
  EXPECT_THAT(lines, testing::UnorderedElementsAre(
                         "", "kivtrap: fullpath getcwd failed on dir\n",
                         "kivtrap: fullpath could not readlink on chain1: Cannot allocate memory\n",
                         "kivtrap: fullpath could not readlink on chain2: Cannot allocate memory\n",
                         "kivtrap: fullpath(chain2): cannot determine current directory\n"));
}

TEST_F(Fullpath, LongNames) {
  EXPECT_EQ(resolved(std::string(kPathSize, '/') + "tmp", kPlain), "ENAMETOOLONG");
  // A byte that is no text takes three: this link's text is 11533 bytes long.
  const std::string odd(255, '\x80');
  std::string text = odd + "/f";
  fs::create_directory(odd);
  machine::write_file(text, "");
  for (int i = 0; i < 14; ++i) text = odd + "/../" + text;
  fs::create_symlink(text, "odd");
  for (const auto& [length, line] : {std::pair(754U, "fullpath could not lstat ./"),
                                     std::pair(755U, "fullpath path name too long ./")}) {
    const std::string path = "." + std::string(length - 1, '/') + "odd";
    EXPECT_EQ(resolved(path, kFollow), "ENAMETOOLONG");
    EXPECT_THAT(told(1, path, kFollow), testing::StartsWith(line));
  }

  std::string path = "/t";
  for (int i = 0; i < 20; ++i) {  // deeper than the system takes at once
    const std::string name(255, 'n');
    path += "/" + name;
    ASSERT_EQ(mkdir(name.c_str(), 0755) + chdir(name.c_str()), 0);
  }
  ASSERT_EQ(system("mkdir sub; touch file sub/file"), 0);
  EXPECT_EQ(resolved("file", kPlain), path + "/file");
  // Into a directory there it gets, but by the name of this one not back.
  EXPECT_EQ(resolved("sub", kPlain), "ENAMETOOLONG");
  EXPECT_EQ(told(1, "sub/file", kPlain, path.size() + 9),
            path + "/sub/file path is too long\nfullpath(sub/file) cannot restore cwd to " + path +
                ": File name too long\n");
  EXPECT_EQ(told(1, path, kPlain), "cannot stat " + path + "\n");
}

TEST_F(Fullpath, ClosedDirectories) {
  if (!machine::has_users()) return skip("no users but root here");
  ASSERT_EQ(mkdir("shut", 0744) + seteuid(machine::kUser), 0);
  EXPECT_EQ(told(1, "shut", kPlain), "cannot chdir to shut: Permission denied\n");
  EXPECT_EQ(seteuid(0), 0);
}

}  // namespace

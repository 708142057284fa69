// Full path names over a tree of real directories and links.
#include "liblocal/startup/fullp_ux.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tests/fakes.h"
#include "tests/locales.h"
#include "tests/work.h"

namespace {

namespace fs = std::filesystem;

constexpr unsigned kFollow = kFullpathFollow, kSlash = kFullpathDirectorySlash;

// The current directory is the root of the tree.
class Fullpath : public testing::Test {
 protected:
  Fullpath() {
    fs::current_path(root_);
    const char make_tree[] =
        "mkdir dir; touch dir/file; ln -s dir link_dir; ln -s dir/file link_file;"
        "ln -s ../link_file dir/up; ln -s nowhere broken; ln -s $PWD/dir/file absolute";
    EXPECT_EQ(system(make_tree), 0);
  }
  ~Fullpath() override { fs::current_path("/"); }

  // The full name of `path`, or the name of the error, and the debug lines. The output takes the
  // place of the path. All absolute names begin behind the root, `size` counts from there, too.
  std::string resolved(const std::string& path, unsigned flags, size_t size = 12288,
                       int level = 1) {
    const fs::path before = fs::current_path();
    size += root_.size();
    std::string text = (path.starts_with('/') ? root_ : "") + path + std::string(size, '\0');
    std::string answer;
    const std::string lines = printed(level, [&] {
      const char* full = fullpath2(text.data(), text.data(), size, flags);
      answer = full == nullptr ? strerrorname_np(errno) + std::string(": ") : full;
    });
    EXPECT_EQ(fs::current_path(), before);
    answer += lines;
    for (size_t at; (at = answer.find(root_)) != answer.npos;) answer.erase(at, root_.size());
    return answer;
  }

  const TemporaryDirectory place_;
  const std::string root_ = place_.path();
};

TEST_F(Fullpath, WithoutFlags) {
  const std::pair<const char*, const char*> names[] = {
      {"/broken", "/broken"},
      {"", "ENOENT: kivtrap: cannot stat \n"},
      {"dir/file/", "ENOTDIR: kivtrap: cannot stat dir/file/\n"},
      {"//dir//file", "/dir/file"},
      {"/dir/../dir", "/dir"},
      {"/link_dir/up", "/dir/up"}};
  for (const auto& [path, full] : names) EXPECT_EQ(resolved(path, 0), full);
  EXPECT_STREQ(fullpath("/proc/self/"), "/proc/self") << "not the directory that it leads to";
}

TEST_F(Fullpath, FollowsLinks) {
  fs::create_symlink("dir/file", "l1");
  for (int i = 1; i < 20; ++i) {
    fs::create_symlink("l" + std::to_string(i), "l" + std::to_string(i + 1));
  }
  const std::pair<const char*, const char*> names[] = {
      {"/absolute", "/dir/file"},
      {"l19", "/dir/file"},
      {"l20",
       "ELOOP: kivtrap: fullpath too many symlink loops for l20: "
       "Too many levels of symbolic links\n"},
      {"broken", "ENOENT: kivtrap: cannot stat broken\n"}};
  for (const auto& [path, full] : names) EXPECT_EQ(resolved(path, kFollow), full);
  EXPECT_EQ(resolved("link_file", kFollow, 99, 3),
            "/dir/filekivtrap: fullpath follow_path returns `dir/file'\n");
  const fakes::FailingMalloc failing(1, 1);
  EXPECT_EQ(resolved("link_file", kFollow),
            "ENOMEM: kivtrap: fullpath could not readlink on link_file: Cannot allocate memory\n");
}

TEST_F(Fullpath, EndsDirectoriesWithASlash) {
  EXPECT_EQ(resolved("/dir", kSlash), "/dir/");
  EXPECT_EQ(resolved("link_dir", kSlash | kFollow), "/dir/");
  char output[9];
  EXPECT_STREQ(fullpath2("///", output, sizeof output, kSlash), "/");
  EXPECT_STREQ(fullpath2("/bin", output, sizeof output, kSlash), "/bin") << "a link";
}

TEST_F(Fullpath, FitsItsOutput) {
  EXPECT_EQ(fullpath2("/", nullptr, 9, 0), nullptr);
  EXPECT_EQ(resolved("/dir/file", 0, 9), "ENAMETOOLONG: kivtrap: /dir/file path is too long\n");
  EXPECT_EQ(resolved("link_file", 0, 11), "/link_file");
  EXPECT_EQ(resolved("dir/file", 0, 4, 3),
            "ERANGE: kivtrap: fullpath getcwd failed on dir\n"
            "kivtrap: fullpath failed to get the new cwd\n");
  EXPECT_EQ(resolved("dir/", 0, 4), "ERANGE: kivtrap: getcwd failed on dir\n");
  EXPECT_EQ(resolved("dir", kSlash, 5), "/dir") << "no room for the slash";
  EXPECT_EQ(resolved("dir", kSlash, 6), "/dir/");
}

TEST_F(Fullpath, LongPathsAndLinks) {
  const std::string long_path = "." + std::string(12288, '/');
  EXPECT_EQ(resolved(long_path, 0), "ENAMETOOLONG: kivtrap: cannot stat " + long_path + "\n");
  // A byte that is no text takes three: this link's text is 11533 bytes long.
  const std::string odd(255, '\x80');
  std::string text = odd + "/f";
  fs::create_directory(odd);
  machine::write_file(text, "");
  for (int i = 0; i < 14; ++i) text = odd + "/../" + text;
  fs::create_symlink(text, "odd");
  const std::string directory = "." + std::string(754, '/');
  EXPECT_EQ(resolved(directory + "odd", kFollow),
            "ENAMETOOLONG: kivtrap: fullpath path name too long " + directory + text +
                ": File name too long\n");
}

TEST_F(Fullpath, DeeperThanAPathCanBe) {
  std::string path;
  for (int i = 0; i < 20; ++i) {
    const std::string name(255, 'n');
    path += "/" + name;
    ASSERT_EQ(mkdir(name.c_str(), 0755), 0);
    ASSERT_EQ(chdir(name.c_str()), 0);
  }
  ASSERT_EQ(system("mkdir sub; touch file sub/file"), 0);
  EXPECT_EQ(resolved("file", 0), path + "/file");
  const std::string no_way_back = " cannot restore cwd to " + path + ": File name too long\n";
  EXPECT_EQ(resolved("sub", 0), "ENAMETOOLONG: kivtrap: fullpath(sub)" + no_way_back);
  EXPECT_EQ(resolved("sub/file", 0, path.size() + 9),
            "ENAMETOOLONG: kivtrap: " + path + "/sub/file path is too long\n" +
                "kivtrap: fullpath(sub/file)" + no_way_back);
}

}  // namespace

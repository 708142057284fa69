// Full path names of arbitrary paths in a small tree: a result names the same file
// and itself, fits its buffer, and the process stays where it was. The first byte
// chooses flags and starting point; '@' at the front of the path is the tree's root.
#undef NDEBUG
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "liblocal/debug.h"
#include "liblocal/fullp_ux.h"

namespace {

namespace fs = std::filesystem;

struct Tree {
  std::string root;

  Tree() {
    char name[] = "/tmp/fullpath_fuzz.XXXXXX";
    assert(mkdtemp(name) != nullptr);
    root = name;
    fs::create_directories(root + "/d/e");
    fs::create_directories(root + "/.h");
    for (const char* file : {"/f", "/d/f", "/d/e/f", "/.h/.f"}) std::ofstream(root + file).put('x');
    fs::create_symlink("d", root + "/l");
    fs::create_symlink("../f", root + "/d/u");
    fs::create_symlink("o", root + "/o");
    fs::create_symlink("nowhere", root + "/b");
    fs::create_symlink(root + "/l/e/f", root + "/a");
    fs::create_symlink("..//l/./u", root + "/d/w");
    for (char each = '1'; each <= '9'; ++each) {  // a chain of nine, then two
      fs::create_symlink(each == '1' ? "d/w" : std::string(1, static_cast<char>(each - 1)),
                         root + "/" + each);
    }
    liblvars_set_debug(3);
    dfopen("/dev/null");
  }
  ~Tree() { fs::remove_all(root); }
};

bool same_file(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// With the path's trailing slashes or without them.
bool names_the_same(const char* result, std::string path, bool follow) {
  auto look = follow ? stat : lstat;
  struct stat found, wanted;
  assert(look(result, &found) == 0);
  if (look(path.c_str(), &wanted) == 0 && same_file(found, wanted)) return true;
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return look(path.c_str(), &wanted) == 0 && same_file(found, wanted);
}

void check(const std::string& path, unsigned flags, size_t room) {
  struct stat before, after;
  assert(stat(".", &before) == 0);
  std::vector<char> output(room);  // of its exact size, so overruns are seen
  const char* result = fullpath2(path.c_str(), output.data(), room, flags);
  assert(stat(".", &after) == 0 && same_file(before, after));
  if (result == nullptr) return;
  assert(result == output.data() && *result == '/');
  assert(std::string(result).size() < room);
  assert(names_the_same(result, path, (flags & kFullpathFollow) != 0));

  char again[kPathSize];
  assert(fullpath2(result, again, sizeof again, flags) != nullptr);
  // A '/' for which there was no room may be there now.
  assert(again == std::string(result) || again == std::string(result) + "/");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Tree tree;
  static const int home = open(".", O_PATH);  // where the fuzzer keeps its corpus
  if (size < 3 || data[2] == '/') return -1;  // an absolute path would leave the tree
  std::string path(reinterpret_cast<const char*>(data + 2), size - 2);
  path = path.c_str();
  if (path.starts_with('@')) path.replace(0, 1, tree.root);
  const char* const starts[] = {"", "/d", "/d/e", "/.h"};
  assert(chdir((tree.root + starts[data[0] >> 2 & 3]).c_str()) == 0);
  check(path, data[0] & 3, (data[0] & 0x80) != 0 ? data[1] : kPathSize);
  assert(fchdir(home) == 0);
  return 0;
}

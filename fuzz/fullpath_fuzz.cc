// Full path names of arbitrary paths in a small tree: a result names the same file and itself,
// fits its buffer, and the process stays where it was. The first byte chooses flags and
// starting point; '@' at the front of the path is the tree's root.
#undef NDEBUG
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "liblocal/messages/debug.h"
#include "liblocal/startup/fullp_ux.h"

namespace fs = std::filesystem;

static struct Tree {
  std::string root;

  Tree() {
    char name[] = "/tmp/fullpath_fuzz.XXXXXX";
    root = mkdtemp(name);
    const std::string script =
        "cd " + root + " && mkdir -p d/e .h && touch f d/f d/e/f .h/.f && ln -s d l &&" +
        "ln -s ../f d/u && ln -s o o && ln -s nowhere b && ln -s $PWD/l/e/f a &&"
        "ln -s ..//l/./u d/w && ln -s d/w 1 &&"
        "for each in 1 2 3 4 5 6 7 8; do ln -s $each $((each + 1)); done";  // nine, then two
    assert(system(script.c_str()) == 0);
    liblvars_set_debug(3);
    dfopen("/dev/null");
  }
  ~Tree() { fs::remove_all(root); }
} tree;

static ino_t file_at(const std::string& path, unsigned flags) {
  struct stat found = {};
  ((flags & kFullpathFollow) != 0 ? stat : lstat)(path.c_str(), &found);
  return found.st_ino;
}

static void check(std::string path, unsigned flags, size_t room) {
  const fs::path before = fs::current_path();
  std::vector<char> output(room);  // of its exact size, so overruns are seen
  const char* result = fullpath2(path.c_str(), output.data(), room, flags);
  assert(fs::current_path() == before);
  if (result == nullptr) return;
  const std::string name = result;
  assert(result == output.data() && *result == '/' && name.size() < room);
  const ino_t file = file_at(name, flags);
  for (assert(file != 0); file_at(path, flags) != file; path.pop_back()) {
    assert(path.ends_with('/'));  // names the same without such an end
  }
  char again[kPathSize];
  assert(fullpath2(result, again, sizeof again, flags) != nullptr);
  assert(again == name || again == name + "/");  // for which there was no room before
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
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

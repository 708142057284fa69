// Full path names of paths in a small tree: a result names the same file and itself, fits its
// buffer, and the process stays where it was. The first byte of the input chooses the flags, the
// second the buffer's size; '@' at the front of the path is the tree's root.
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "fuzz/harness.h"
#include "liblocal/startup/fullp_ux.h"

namespace fs = std::filesystem;

static struct Tree {
  char root[32] = "/tmp/fullpath.XXXXXX";

  Tree() {
    // 1 to 9 are a chain of nine links that ends with two more, d/w and l.
    const std::string script =
        "cd " + std::string(mkdtemp(root)) +
        " && mkdir -p d/e && touch f d/f d/e/f && ln -s d l && ln -s ../f d/u &&"
        "ln -s o o && ln -s nowhere b && ln -s $PWD/l/e/f a && ln -s ..//l/./u d/w &&"
        "ln -s d/w 1 && for each in 1 2 3 4 5 6 7 8; do ln -s $each $((each + 1)); done";
    assert(system(script.c_str()) == 0);
  }
  ~Tree() { fs::remove_all(root); }
} tree;

static void check_path(const std::string& path, unsigned flags, size_t room) {
  std::vector<char> output(room);  // of its exact size, so overruns are seen
  const char* result = fullpath2(path.c_str(), output.data(), room, flags);
  if (result == nullptr) return;
  const std::string name = result;
  assert(name.starts_with('/'));
  std::error_code dangling;
  assert(fs::equivalent(name, path, dangling) || dangling || path.ends_with('/'));
  char again[kPathSize];
  assert(fullpath2(result, again, sizeof again, flags) != nullptr);
  assert(again == name || again == name + "/");  // for which there was no room before
}

void check_input(std::string_view input) {
  // An absolute path would leave the tree; a tag (U+E0000) would not reach the system.
  if (input.size() < 3 || input[2] == '/' || input.find("\xF3\xA0") != input.npos) return;
  std::string path = std::string(input.substr(2)).c_str();
  if (path.starts_with('@')) path.replace(0, 1, tree.root);
  const auto choice = static_cast<uint8_t>(input[0]), room = static_cast<uint8_t>(input[1]);
  const fs::path home = fs::current_path(), start = std::string(tree.root) + "/d";
  fs::current_path(start);
  check_path(path, choice & 3U, choice < 0x80 ? kPathSize : room);
  assert(fs::current_path() == start);
  fs::current_path(home);  // where the fuzzer keeps its corpus
}

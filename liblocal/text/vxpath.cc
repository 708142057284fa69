#include "liblocal/text/vxpath.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "liblocal/base/vx_error.h"
#include "liblocal/base/xmalloc.h"
#include "liblocal/text/text_view.h"

namespace {

std::string_view without_trailing_slashes(std::string_view text) {
  while (text.ends_with('/')) text.remove_suffix(1);
  return text;
}

// What of a path both operations look at.
std::string_view work_area(const char* path) {
  return without_trailing_slashes({path, strnlen(path, kPathComponentSize - 1)});
}

bool are_given(const char* path, const char* buffer) {
  if (path != nullptr && buffer != nullptr) return true;
  vx_error_set_last(EINVAL, kVxErrorErrno);
  return false;
}

}  // namespace

int vx_path_basename(const char* path, char* buffer, size_t size) {
  if (!are_given(path, buffer)) return -1;
  std::string_view area = work_area(path);
  text_copy_cut(text_part(area, area.rfind('/') + 1), buffer, size);  // npos + 1 is 0
  return 0;
}

int vx_path_dirname(const char* path, char* buffer, size_t size) {
  if (!are_given(path, buffer)) return -1;
  std::string_view area = work_area(path);
  size_t slash = area.rfind('/');
  if (!area.empty() && slash == area.npos) {
    text_copy_cut(".", buffer, size);
    return 0;
  }
  // First cut to the buffer, then stripped: a cut may end in a '/', too.
  const std::string_view cut = text_part(text_part(area, 0, slash), 0, size - 1);
  const std::string_view directory = without_trailing_slashes(cut);
  text_copy_cut(directory.empty() ? "/" : directory, buffer, size);
  return 0;
}

char* path_concat(const char* directory, const char* name) {
  if (directory == nullptr && name == nullptr) return nullptr;
  std::string_view base = directory != nullptr ? directory : "./";
  std::string_view rest = name != nullptr ? name : "";
  char* path = static_cast<char*>(xmalloc(base.size() + rest.size() + sizeof "/"));
  char* at = std::copy(base.begin(), base.end(), path);
  if (!base.ends_with('/')) *at++ = '/';
  at = std::copy(rest.begin(), rest.end(), at);
  *at = '\0';
  return path;
}

#include "liblocal/startup/fullp_ux.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "liblocal/base/c_memory.h"
#include "liblocal/messages/debug.h"
#include "liblocal/messages/errinfo.h"
#include "liblocal/text/text_view.h"
#include "liblocal/text/utf8_files.h"

namespace {

constexpr size_t kLinkTextSize = 24576;
constexpr int kLinkLimit = 20;  // so many links in a chain are too many

enum class Kind { kMissing, kDirectory, kLink, kOther };

Kind kind_of(const char* path, bool follow) {
  vx_stat_record status;
  if ((follow ? vx_stat(path, &status) : vx_lstat(path, &status)) != 0) return Kind::kMissing;
  switch (status.mode & kVxTypeMask) {
    case kVxDirectory:
      return Kind::kDirectory;
    case kVxSymbolicLink:
      return Kind::kLink;
    default:
      return Kind::kOther;
  }
}

// Writes a debug line of `level`; keeps `errno`.
[[gnu::format(printf, 2, 3)]] void trace(int level, const char* format, ...) {
  int saved_errno = errno;
  va_list arguments;
  va_start(arguments, format);
  vdfprintf(level, format, arguments);
  va_end(arguments);
  errno = saved_errno;
}

void strip_trailing_slashes(char* path) {
  size_t length = strlen(path);
  while (length > 1 && path[length - 1] == '/') path[--length] = '\0';
}

// Copies the absolute `path`, less trailing slashes, to `output`. False when a parent is no
// real directory or a component but the first may be a step.
bool take_as_it_is(const char* path, char* output, size_t size, bool follow) {
  if (*path != '/' || strlen(path) >= std::min(size, kPathSize)) return false;
  c_unique_ptr<char> own(strdup(path));
  char* copy = own.get();
  if (copy == nullptr) return false;
  strip_trailing_slashes(copy);
  const size_t length = strlen(copy);
  Kind kind = kind_of(copy, false);
  if (kind == Kind::kMissing || (follow && kind == Kind::kLink)) return false;
  for (char* slash = strrchr(copy, '/'); slash != copy; slash = strrchr(copy, '/')) {
    if (slash[1] == '\0' || slash[1] == '.') return false;
    *slash = '\0';
    if (kind_of(copy, false) != Kind::kDirectory) return false;
  }
  memmove(output, path, length);
  output[length] = '\0';
  return true;
}

// The current directory, to change back to: by its name, or else by a descriptor.
class CurrentDirectory {
 public:
  // `path` is what the debug lines name.
  explicit CurrentDirectory(const char* path)
      : path_(path), itself_(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC)) {
    known_ = brix_getcwd(name_, sizeof name_) != nullptr;
    if (!known_) trace(1, "fullpath(%s): cannot determine current directory\n", path);
  }
  ~CurrentDirectory() {
    if (itself_ >= 0) close(itself_);
  }
  CurrentDirectory(const CurrentDirectory&) = delete;
  CurrentDirectory& operator=(const CurrentDirectory&) = delete;

  bool known() const { return known_; }
  const char* name() const { return name_; }

  // Changes back. False when that is not possible by name.
  bool restore() const {
    if (utf8_chdir(name_) == 0) return true;
    trace(1, "fullpath(%s) cannot restore cwd to %s: %s\n", path_, name_, brix_strerror(errno));
    int saved_errno = errno;
    [[maybe_unused]] int result = fchdir(itself_);
    errno = saved_errno;
    return false;
  }

 private:
  const char* path_;
  int itself_;
  bool known_;
  char name_[kPathSize];
};

// Replaces the link at `path`, of kPathSize bytes, by its text: the whole path when the text
// is absolute, else the last component.
bool replace_link(char* path) {
  char link[kLinkTextSize];
  if (utf8_readlink(path, link, sizeof link) == -1) {
    trace(1, "fullpath could not readlink on %s: %s\n", path, brix_strerror(errno));
    return false;
  }
  char* slash = strrchr(path, '/');
  char* at = *link == '/' || slash == nullptr ? path : slash + 1;
  *at = '\0';
  size_t length = strlen(link);
  if (static_cast<size_t>(at - path) + length >= kPathSize) {
    errno = ENAMETOOLONG;
    trace(1, "fullpath path name too long %s%s: %s\n", path, link, brix_strerror(errno));
    return false;
  }
  memcpy(at, link, length + 1);
  return true;
}

// Resolves the symbolic links at the end of `copy`, of kPathSize bytes. `path` is what the
// debug lines name.
bool follow_links(const char* path, char* copy) {
  for (int replaced = 0; replaced < kLinkLimit; ++replaced) {
    Kind kind = kind_of(copy, false);
    if (kind == Kind::kMissing) {
      trace(1, "fullpath could not lstat %s: %s\n", copy, brix_strerror(errno));
      return false;
    }
    if (kind != Kind::kLink) {
      trace(3, "fullpath follow_path returns `%s'\n", copy);
      return true;
    }
    if (!replace_link(copy)) return false;
  }
  errno = ELOOP;
  trace(1, "fullpath too many symlink loops for %s: %s\n", path, brix_strerror(errno));
  return false;
}

// Writes `directory` (perhaps `output` itself), '/' and `name` into `output`.
bool join(const char* directory, const char* name, char* output, size_t size) {
  size_t length = strlen(directory);
  size_t slash = strcmp(directory, "/") == 0 ? 0 : 1;
  size_t name_length = strlen(name);
  if (length + slash + name_length >= size) {
    errno = ENAMETOOLONG;
    trace(1, "%s%c%s path is too long\n", directory, '/', name);
    return false;
  }
  memmove(output, directory, length + 1);
  if (slash != 0) output[length] = '/';
  memcpy(output + length + slash, name, name_length + 1);
  return true;
}

bool enter(const char* directory) {
  if (utf8_chdir(directory) == 0) return true;
  trace(1, "cannot chdir to %s: %s\n", directory, brix_strerror(errno));
  return false;
}

// Writes the system's name of `directory` into `output`.
bool name_directory(const char* directory, const CurrentDirectory& home, char* output,
                    size_t size) {
  if (!enter(directory)) return false;
  bool named = brix_getcwd(output, size) != nullptr;
  if (!named) trace(1, "getcwd failed on %s\n", directory);
  return home.restore() && named;
}

// Writes the system's name of the directory of `path`, and behind it the last component of
// `path`, into `output`.
bool name_file(char* path, const CurrentDirectory& home, char* output, size_t size) {
  char* slash = strrchr(path, '/');
  if (slash == nullptr) return join(home.name(), path, output, size);
  *slash = '\0';
  const char* directory = slash == path ? "/" : path;
  if (!enter(directory)) return false;
  bool named = brix_getcwd(output, size) != nullptr;
  if (named) {
    named = join(output, slash + 1, output, size);
  } else {
    trace(1, "fullpath getcwd failed on %s\n", directory);
    trace(3, "fullpath failed to get the new cwd\n");
  }
  return home.restore() && named;
}

bool find_from_here(const char* path, char* output, size_t size, unsigned flags) {
  bool follow = (flags & kFullpathFollow) != 0;
  char given[kPathSize];  // `path`, which `output` may overwrite
  char copy[kPathSize];
  Kind kind = Kind::kMissing;
  if (strlen(path) < sizeof given) {
    kind = kind_of(path, follow);
  } else {
    errno = ENAMETOOLONG;
  }
  if (kind == Kind::kMissing) {
    trace(1, "cannot stat %s\n", path);
    return false;
  }
  text_copy_cut(path, given, sizeof given);
  text_copy_cut(path, copy, sizeof copy);
  strip_trailing_slashes(copy);
  CurrentDirectory home(given);
  if (!home.known()) return false;
  if (kind != Kind::kDirectory) {
    if (follow && !follow_links(given, copy)) return false;
    return name_file(copy, home, output, size);
  }
  if (!name_directory(copy, home, output, size)) return false;
  size_t length = strlen(output);
  if ((flags & kFullpathDirectorySlash) != 0 && length > 1 && length + 1 < size) {
    memcpy(output + length, "/", sizeof "/");
  }
  return true;
}

}  // namespace

char* fullpath2(const char* path, char* output, size_t size, unsigned flags) {
  if (path == nullptr || output == nullptr || size == 0) {
    errno = EINVAL;
    return nullptr;
  }
  bool may_be_itself = (flags & kFullpathDirectorySlash) == 0;
  bool follow = (flags & kFullpathFollow) != 0;
  if (may_be_itself && take_as_it_is(path, output, size, follow)) return output;
  return find_from_here(path, output, size, flags) ? output : nullptr;
}

char* fullpath(const char* path) {
  static char buffer[kPathSize];
  return fullpath2(path, buffer, sizeof buffer, 0);
}

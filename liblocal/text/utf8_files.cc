#include "liblocal/text/utf8_files.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/liblvarp.h"
#include "liblocal/base/text_sizes.h"
#include "liblocal/base/xmalloc.h"
#include "liblocal/text/mbt.h"
#include "liblocal/text/text_view.h"
#include "liblocal/text/utf8_convert.h"

namespace {

c_unique_ptr<char> allocate(size_t size) {
  return c_unique_ptr<char>(static_cast<char*>(malloc(size)));
}

// vx_mbstombts with ERANGE in `errno` when it fails.
bool make_transparent(char* output, const char* name, size_t size) {
  if (vx_mbstombts(output, name, size) != 0) return true;
  errno = ERANGE;
  return false;
}

// Calls `link_them` with both paths converted. The thread's buffer holds one at a time,
// so the second is copied.
int with_two_paths(const char* first, const char* second,
                   int (*link_them)(const char* first, const char* second)) {
  c_unique_ptr<char> copy(strdup(syscalls_utf8dec(second)));
  if (copy == nullptr) return -1;
  return link_them(syscalls_utf8dec(first), copy.get());
}

int examine(int (*examine_path)(const char* path, struct stat* status), const char* path,
            vx_stat_record* record) {
  struct stat status;
  if (examine_path(syscalls_utf8dec(path), &status) != 0) return -1;
  record->mode = status.st_mode;
  return 0;
}

}  // namespace

const char* syscalls_utf8dec(const char* path) {
  int saved_errno = errno;
  vx_text_buffer* buffer = &get_liblocal_t_varp()->utf8_path;
  if (buffer->text == nullptr) *buffer = {static_cast<char*>(xmalloc(kPathSize)), kPathSize};
  // The beginning of a refused path would name another file.
  if (ansi_mbs(buffer->text, path, kPathSize) == 0) *buffer->text = '\0';
  errno = saved_errno;
  return buffer->text;
}

FILE* utf8_fopen(const char* path, const char* mode) { return fopen(syscalls_utf8dec(path), mode); }

int utf8_access(const char* path, int mode) { return access(syscalls_utf8dec(path), mode); }

int utf8_chdir(const char* path) { return chdir(syscalls_utf8dec(path)); }

DIR* utf8_opendir(const char* path) { return opendir(syscalls_utf8dec(path)); }

int utf8_lstat(const char* path, struct stat* status) {
  return lstat(syscalls_utf8dec(path), status);
}

int utf8_unlink(const char* path) { return unlink(syscalls_utf8dec(path)); }

int utf8_mkdir(const char* path, mode_t mode) { return mkdir(syscalls_utf8dec(path), mode); }

int utf8_rmdir(const char* path) { return rmdir(syscalls_utf8dec(path)); }

int utf8_utime(const char* path, const utimbuf* times) {
  return utime(syscalls_utf8dec(path), times);
}

int utf8_chown(const char* path, uid_t owner, gid_t group) {
  return chown(syscalls_utf8dec(path), owner, group);
}

int utf8_chmod(const char* path, mode_t mode) { return chmod(syscalls_utf8dec(path), mode); }

int utf8_mknod(const char* path, mode_t mode, dev_t device) {
  return mknod(syscalls_utf8dec(path), mode, device);
}

int utf8_link(const char* existing, const char* path) {
  return with_two_paths(existing, path, link);
}

int utf8_symlink(const char* target, const char* path) {
  return with_two_paths(target, path, symlink);
}

ssize_t utf8_readlink(const char* path, char* buffer, size_t size) {
  c_unique_ptr<char> text = allocate(size);
  if (text == nullptr) return -1;
  ssize_t length = readlink(syscalls_utf8dec(path), text.get(), size);
  if (length < 0) return -1;
  size_t end = static_cast<size_t>(length) < size ? static_cast<size_t>(length) : size - 1;
  text.get()[end] = '\0';
  if (!make_transparent(buffer, text.get(), size)) return -1;
  return static_cast<ssize_t>(strlen(buffer));
}

dirent* utf8_readdir(DIR* directory, dirent* entry) {
  constexpr size_t kHeader = offsetof(dirent, d_name);
  // As good as readdir_r where each thread reads its own directory, and any length of
  // name gets through.
  const dirent* next = readdir(directory);
  if (next == nullptr) return nullptr;
  char* bytes = reinterpret_cast<char*>(entry);  // the name is longer than the member
  // A transparent byte asks for one byte more than it takes.
  char name[kUtf8DirentSize - kHeader + 1];
  if (vx_mbstombts(name, next->d_name, sizeof name) == 0 ||
      strlen(name) >= kUtf8DirentSize - kHeader) {
    errno = ENAMETOOLONG;
    return nullptr;
  }
  memcpy(bytes, next, kHeader);
  text_copy_cut(name, bytes + kHeader, sizeof name);
  return entry;
}

dirent* vx_readdir(DIR* directory, dirent* entry) { return utf8_readdir(directory, entry); }

char* utf8_getcwd(char* buffer, size_t size) {
  c_unique_ptr<char> path = allocate(size);
  if (path == nullptr || getcwd(path.get(), size) == nullptr) return nullptr;
  c_unique_ptr<char> made;
  if (buffer == nullptr) {
    made = allocate(size);
    buffer = made.get();
  }
  if (buffer == nullptr || !make_transparent(buffer, path.get(), size)) return nullptr;
  (void)made.release();  // the caller's now
  return buffer;
}

char* brix_getcwd(char* buffer, size_t size) { return utf8_getcwd(buffer, size); }

int vx_stat(const char* path, vx_stat_record* record) { return examine(stat, path, record); }

int vx_lstat(const char* path, vx_stat_record* record) { return examine(lstat, path, record); }

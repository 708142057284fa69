// The file system by UTF-8 names: the platform's calls with paths that may hold
// transparent bytes (see mbt.h), and names from the platform in that form, so that
// every name there is can be read, kept and used again.
//
// A path is converted to the locale's codeset into a buffer of the calling thread.
// The wrappers return what the platform's call returns, with its `errno`.
//
// Thread safety: as the platform's calls.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <utime.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>

/// `path` in the locale's codeset. The text lasts until the thread's next call of this
/// or of any wrapper below. A path that ansi_mbs refuses gives an empty text, which
/// names no file. Waits for memory. Keeps `errno`.
[[nodiscard]] const char* syscalls_utf8dec(const char* path);

/// The platform's fopen. The stream is not marked; the caller closes it with vxfclose
/// (utf8.h).
[[nodiscard]] FILE* utf8_fopen(const char* path, const char* mode);

/// The platform's calls of these names.
[[nodiscard]] int utf8_access(const char* path, int mode);
[[nodiscard]] int utf8_chdir(const char* path);
[[nodiscard]] DIR* utf8_opendir(const char* path);
[[nodiscard]] int utf8_lstat(const char* path, struct stat* status);
int utf8_unlink(const char* path);
int utf8_mkdir(const char* path, mode_t mode);
int utf8_rmdir(const char* path);
int utf8_utime(const char* path, const utimbuf* times);
int utf8_chown(const char* path, uid_t owner, gid_t group);
int utf8_chmod(const char* path, mode_t mode);
int utf8_mknod(const char* path, mode_t mode, dev_t device);

/// The platform's link and symlink. Without memory -1, ENOMEM.
int utf8_link(const char* existing, const char* path);
int utf8_symlink(const char* target, const char* path);

/// Reads the text of the link `path` into `buffer` of `size` bytes, always terminated;
/// a longer one is cut at `size` - 1 bytes. Returns its length; -1 when readlink
/// fails, without memory (ENOMEM), or when `buffer` cannot hold the transparent form
/// (ERANGE).
ssize_t utf8_readlink(const char* path, char* buffer, size_t size);

/// Bytes of an entry that holds every name in transparent form.
constexpr size_t kUtf8DirentSize = offsetof(dirent, d_name) + 3 * NAME_MAX + 1;

/// Reads the next entry of `directory` into `entry`. Returns `entry`; null at the end,
/// and with `errno` set on failure: ENAMETOOLONG for a name of more than 3 * NAME_MAX
/// bytes in transparent form.
///
/// REQUIRES: `entry` has kUtf8DirentSize bytes, and no other thread reads `directory`.
[[nodiscard]] dirent* utf8_readdir(DIR* directory, dirent* entry);

/// The same as utf8_readdir.
[[nodiscard]] dirent* vx_readdir(DIR* directory, dirent* entry);

/// Writes the current directory into `buffer` of `size` bytes, or into memory of that
/// size which the caller frees when `buffer` is null. Returns the text; null when
/// getcwd fails, without memory (ENOMEM), or when `size` bytes cannot hold the
/// transparent form (ERANGE).
[[nodiscard]] char* utf8_getcwd(char* buffer, size_t size);

/// The same as utf8_getcwd.
[[nodiscard]] char* brix_getcwd(char* buffer, size_t size);

// The type bits of vx_stat_record::mode.
constexpr uint32_t kVxTypeMask = 0xF000;
constexpr uint32_t kVxDirectory = 0x4000;
constexpr uint32_t kVxSymbolicLink = 0xA000;

/// What the library keeps of a file's status.
struct vx_stat_record {
  uint32_t mode;  // type and permission bits
};

/// The status of the file `path`; vx_lstat that of a link itself. Returns 0, or -1
/// with `errno` set and the record as it was.
[[nodiscard]] int vx_stat(const char* path, vx_stat_record* record);
[[nodiscard]] int vx_lstat(const char* path, vx_stat_record* record);

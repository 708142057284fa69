// Taking path names apart and putting them together, as text: no file is looked at.
//
// Thread safe.
#pragma once

#include <cstddef>

constexpr size_t kPathComponentSize = 1024;  // bytes of a path taken apart, terminator included

/// Copies the last component of `path`, less trailing '/' characters, into `buffer`
/// of `size` bytes, cut to fit and always terminated. "/usr/sbin/" gives "sbin", "/"
/// the empty text. Of a longer path only the first 1023 bytes count.
///
/// Returns 0; -1 with EINVAL as the thread's last error (vx_error.h) when `path` or
/// `buffer` is null.
int vx_path_basename(const char* path, char* buffer, size_t size);

/// Copies the directory part of `path` likewise. "/usr/sbin/" gives "/usr", "name"
/// gives ".", "//a" and "/" give "/". Result and errors as vx_path_basename.
int vx_path_dirname(const char* path, char* buffer, size_t size);

/// `directory` and `name` joined by one '/'; a directory that ends with '/' gets no
/// other. A null `directory` counts as "./", a null `name` as "". Returns null when
/// both are null; else the caller frees the result. Waits for memory.
[[nodiscard]] char* path_concat(const char* directory, const char* name);

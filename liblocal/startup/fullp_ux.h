// Full path names: a path without "." and ".." steps and, on request, without a
// symbolic link at its end.
//
// An absolute path whose parents all are real directories is its own answer. Any
// other is found by going there: the current directory is changed to the path's,
// the system is asked for its name, and the current directory is changed back,
// however the call ends.
//
// Thread safety: only while no other thread depends on the current directory.
#pragma once

#include <cstddef>

#include "liblocal/base/text_sizes.h"

constexpr unsigned kFullpathFollow = 1;          // follow symbolic links at the end of the path
constexpr unsigned kFullpathDirectorySlash = 2;  // end the name of a directory with '/'

/// Writes the full name of the file at `path` into `output` of `size` bytes and
/// returns `output`. Relative links are resolved in their own directory, up to 19
/// in a chain.
///
/// The first component of a path that is its own answer is taken as it is. Only its
/// trailing '/' characters go.
///
/// Returns null, with `output` undefined, when there is no such file, when a
/// directory cannot be entered or named, or when a name does not fit. `errno` is
/// ENAMETOOLONG for a name that does not fit, ELOOP for too many links, else the
/// system's. With `Debug` of 1 or more a debug line tells the reason.
[[nodiscard]] char* fullpath2(const char* path, char* output, size_t size, unsigned flags);

/// fullpath2 without flags into a buffer of kPathSize bytes that belongs to this
/// service; the next call overwrites it.
[[nodiscard]] char* fullpath(const char* path);

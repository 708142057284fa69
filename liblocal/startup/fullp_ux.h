// Full path names: a path without "." and ".." steps and, on request, without a
// symbolic link at its end.
//
// An absolute path whose parents all are real directories is its own full name. For any
// other the current directory is changed to the path's, the system is asked for its name,
// and the current directory is changed back, whether the call succeeds or not.
//
// Thread safety: only while no other thread depends on the current directory.
#pragma once

#include <cstddef>

#include "liblocal/base/text_sizes.h"

/// Flag: follow symbolic links at the end of the path.
constexpr unsigned kFullpathFollow = 1;
/// Flag: end the name of a directory with '/'.
constexpr unsigned kFullpathDirectorySlash = 2;

/// Writes the full name of the file at `path` into `output` of `size` bytes and
/// returns `output`, which may be `path`. Relative links are resolved in their own
/// directory, up to 19 in a chain.
///
/// The full name of a path that is its own is the path without trailing '/' characters,
/// even when its first component begins with '.'.
///
/// Returns null, with `output` undefined, when there is no such file, when a directory
/// cannot be entered or named, or when a name does not fit. `errno` is ENAMETOOLONG for a
/// name that does not fit, ELOOP for too many links, else the system's. With `Debug` of 1
/// or more a debug line gives the reason.
[[nodiscard]] char* fullpath2(const char* path, char* output, size_t size, unsigned flags);

/// fullpath2 without flags into a buffer of kPathSize bytes that all calls share: the next
/// one overwrites it.
[[nodiscard]] char* fullpath(const char* path);

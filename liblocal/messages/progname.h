// The program's name, as messages show it.
//
// Thread safety: every operation may be called from any thread.
#pragma once

#include <cstddef>

/// Records the program's name: the last component of `path`, up to its first '.',
/// in lower case (ASCII letters only) and at most 1023 bytes. A null or empty path
/// changes nothing.
void vx_set_progname(const char* path);

/// Copies the program's name into `buffer` of `size` bytes, cut to fit and always
/// terminated; without a recorded name the text is "(pid N)". Returns `buffer`.
char* vx_get_progname(char* buffer, size_t size);

/// Copies the recorded name likewise. Returns false, with `buffer` unchanged, when there
/// is none. Async-signal-safe. When the name is recorded twice during the copy, `buffer`
/// may hold parts of both names.
[[nodiscard]] bool _vx_peek_progname(char* buffer, size_t size);

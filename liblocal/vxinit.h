// Start-up of every program on this runtime, and the program's name.
//
// Call vx_set_progname and then _vxinit first thing in main, from the main
// thread, before any other thread exists.
#pragma once

#include <cstddef>

/// Initialises the runtime for the application `name` ("kiv" for the command):
/// gives up the privileges of a set-user-id start (keeping the way back to
/// root) and silences the platform's getopt. `argv` may be null.
void _vxinit(const char* name, int argc, char** argv);

/// 1 once _vxinit has run to its end, else 0.
[[nodiscard]] int vxinit_done();

/// Records the program's name: the last component of `path`, up to its first
/// '.', in lower case. A null or empty path changes nothing.
void vx_set_progname(const char* path);

/// Copies the program's name into `buffer` of `size` bytes, cut to fit and
/// always terminated; without a recorded name the text is "(pid N)". Returns
/// `buffer`.
///
/// REQUIRES: `size` > 0.
char* vx_get_progname(char* buffer, size_t size);

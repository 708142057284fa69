// The program's origin: the directory that holds its executable.
#pragma once

/// Finds the executable of the program that was started as `argv0`, a name in the locale's
/// codeset, and returns the full name of its directory, in UTF-8 and with a '/' at the end.
/// A name without '/' is searched for in the directories of PATH ("." without that
/// variable). Links are followed. Once found, the origin is returned by every later call;
/// the caller must not free it.
///
/// The user of a set-user-id program chooses `argv0` and PATH, so for such a program the
/// executable is the one that the kernel names.
///
/// Returns null when there is no such file, and for a null `argv0`. Ends the process with
/// status 111 when `argv0` is longer than 1023 bytes, and with status 1 and a message when
/// the executable has further hard links, which anyone may have made anywhere.
///
/// With the environment variable "KIV_PRINT_ORIGIN" a debug line shows the origin (unless
/// `Debug` is negative). A value that begins with 'q' or 'Q' then ends the process with
/// status 0.
///
/// Thread safety: until the origin is found, for one thread at a time.
[[nodiscard]] const char* find_origin(const char* argv0);

// The program's origin: the directory that holds its executable.
#pragma once

/// Finds the executable of the program that was started as `argv0`, in the locale's
/// codeset, and returns the full name of its directory, with a '/' at the end. A name without '/'
/// is looked for in the directories of PATH ("." without that variable); links are followed. Once
/// found it is not looked for again. The text belongs to this service.
///
/// The caller of a set-user-id program chooses `argv0` and PATH. There the
/// executable is what the kernel says it is.
///
/// Returns null when there is no such file, and for a null `argv0`. Ends the process
/// with status 111 when `argv0` is longer than 1023 bytes, with status 1 and a
/// message when the executable has further hard links: anyone could have made one
/// where they please.
///
/// With the environment variable "KIV_PRINT_ORIGIN" a debug line tells the origin
/// (unless `Debug` is negative), and a value that begins with 'q' or 'Q' ends the
/// process with status 0 then.
///
/// Thread safety: for one thread at a time until it has found the origin.
[[nodiscard]] const char* find_origin(const char* argv0);

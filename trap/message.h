// The text of the trap: the first line of a file or of standard input, wrapped
// on request.
#pragma once

#include <cstddef>
#include <cstdio>

#include "liblocal/base/c_memory.h"

constexpr size_t kLineSize = 1024;  // bytes of a line buffer, terminator included

/// Opens the message file, or takes standard input when `file` is null, "" or "-".
/// A file that cannot be opened is reported, and the process ends with status 1.
[[nodiscard]] FILE* open_message_source(const char* file);

/// Reads `source` to its end and closes it unless it is standard input. Returns
/// its first line without its last byte, wrapped when `wrap` is set; null when
/// there was none. `source` is not to be used afterwards.
[[nodiscard]] c_unique_ptr<char> read_message(FILE* source, bool wrap);

/// Copies `line` (terminated, shorter than kLineSize) to `wrapped`, a buffer of
/// kLineSize bytes, with white space replaced by newlines so that no more than
/// 41 bytes are between two breaks. A word longer than that is left whole.
void wrap_line(const char* line, char* wrapped);

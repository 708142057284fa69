// Times as UTF-8 text in the locale's words. Thread safe.
#pragma once

#include <cstddef>
#include <ctime>

/// Formats `time` as the platform's strftime does with the UTF-8 text `format`, of at
/// most 1023 bytes in the locale's codeset, into `output` of `size` bytes: UTF-8, cut to
/// fit and terminated. Returns the text's length; 0 for a null output, or when the
/// text would take 600 bytes or more or is empty.
size_t vxstrftime(char* output, size_t size, const char* format, const tm* time);

/// The platform's strptime of `text`, which is UTF-8; `format` is not converted. Null when
/// `text` does not match. Else the result points into the converted text, which lasts until
/// the thread's next call of an operation that converts a path (utf8_files.h).
[[nodiscard]] const char* vxstrptime(const char* text, const char* format, tm* time);

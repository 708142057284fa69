// The time stamp of log entries.
#pragma once

#include <ctime>

/// Bytes for the text of a time, terminator included.
constexpr size_t kLogTimeSize = 600;

/// Writes the text of `time` into `buffer` and returns it: the local time as
/// "11/18/26 21:08:38", "forever" for 2147483647, "no-time" when there is no local time.
///
/// Without a `buffer` (null) the text is written into one that all threads share. It
/// lasts until the next such call, so only a program of one thread may do that.
///
/// REQUIRES: `buffer` is null or holds kLogTimeSize bytes.
char* log_entry_time(time_t time, char* buffer);

/// Records how far local time is from UTC now, for log_time_in_handler. Thread safe.
void log_time_note_zone();

/// Writes the time of now into `buffer`, of kLogTimeSize bytes, as log_entry_time does but
/// by the zone that log_time_note_zone recorded. Returns the end of the text.
/// Async-signal-safe.
char* log_time_in_handler(char* buffer);

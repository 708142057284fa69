// The time stamp of log entries.
#pragma once

#include <ctime>

constexpr size_t kLogTimeSize = 600;  // bytes that the text of a time may take

/// Writes the text of `time` into `buffer` and returns it: the local time as
/// "11/18/26 21:08:38", "forever" for 2147483647, "no-time" when the local time
/// cannot be told.
///
/// A null `buffer` stands for one that all threads share: its text lasts until
/// the next such call anywhere, so only a program of one thread may do that.
///
/// REQUIRES: `buffer` is null or holds kLogTimeSize bytes.
char* log_entry_time(time_t time, char* buffer);

/// Takes down how far local time is from UTC now, for log_time_in_handler.
void log_time_note_zone();

/// Writes log_entry_time's text of this moment into `buffer`, kLogTimeSize bytes, by the
/// last log_time_note_zone, and returns the end of the text. Async-signal-safe.
char* log_time_in_handler(char* buffer);

#include "liblocal/messages/log_time.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>

#include "liblocal/text/vxstrftime.h"

namespace {

constexpr time_t kForever = 0x7fffffff;

char shared_text[kLogTimeSize];
std::atomic<long> utc_offset;  // seconds

// Writes the last two digits of `number` and `end`; returns what follows.
char* write_two(char* at, int64_t number, char end) {
  *at++ = static_cast<char>('0' + number / 10 % 10);
  *at++ = static_cast<char>('0' + number % 10);
  *at++ = end;
  return at;
}

}  // namespace

char* log_entry_time(time_t time, char* buffer) {
  char* text = buffer != nullptr ? buffer : shared_text;
  tm local;
  if (time == kForever) {
    snprintf(text, kLogTimeSize, "forever");
  } else if (localtime_r(&time, &local) == nullptr) {
    snprintf(text, kLogTimeSize, "no-time");
  } else {
    vxstrftime(text, kLogTimeSize, "%m/%d/%y %H:%M:%S", &local);
  }
  return text;
}

void log_time_note_zone() {
  const time_t now = time(nullptr);
  tm local;
  if (localtime_r(&now, &local) != nullptr) utc_offset = local.tm_gmtoff;
}

char* log_time_in_handler(char* buffer) {
  using namespace std::chrono;
  const sys_seconds local(seconds(time(nullptr) + utc_offset));
  const auto day = floor<days>(local);
  const year_month_day date(day);
  const hh_mm_ss clock(local - day);
  char* at = write_two(buffer, static_cast<unsigned>(date.month()), '/');
  at = write_two(at, static_cast<unsigned>(date.day()), '/');
  at = write_two(at, static_cast<int>(date.year()), ' ');
  at = write_two(at, clock.hours().count(), ':');
  at = write_two(at, clock.minutes().count(), ':');
  return write_two(at, clock.seconds().count(), '\0') - 1;
}

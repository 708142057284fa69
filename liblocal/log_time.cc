#include "liblocal/log_time.h"

#include <cstdio>

namespace {

constexpr time_t kForever = 0x7fffffff;

char shared_text[kLogTimeSize];

}  // namespace

char* log_entry_time(time_t time, char* buffer) {
  char* text = buffer != nullptr ? buffer : shared_text;
  tm local;
  if (time == kForever) {
    snprintf(text, kLogTimeSize, "forever");
  } else if (localtime_r(&time, &local) == nullptr) {
    snprintf(text, kLogTimeSize, "no-time");
  } else {
    // The same in every locale, so the platform's strftime adds nothing.
    snprintf(text, kLogTimeSize, "%02d/%02d/%02d %02d:%02d:%02d", local.tm_mon + 1, local.tm_mday,
             (local.tm_year % 100 + 100) % 100, local.tm_hour, local.tm_min, local.tm_sec);
  }
  return text;
}

#include "liblocal/messages/log_time.h"

#include <cstdio>

#include "liblocal/text/vxstrftime.h"

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
    vxstrftime(text, kLogTimeSize, "%m/%d/%y %H:%M:%S", &local);
  }
  return text;
}

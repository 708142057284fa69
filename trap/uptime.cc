#include "trap/uptime.h"

#include <sys/time.h>
#include <utmp.h>

unsigned long boot_uptime() {
  utmp key{};
  key.ut_type = BOOT_TIME;
  setutent();
  unsigned long uptime = 0;
  if (const utmp* boot = getutid(&key); boot != nullptr) {
    timeval now{};
    gettimeofday(&now, nullptr);
    const auto seconds = static_cast<unsigned long>(now.tv_sec - boot->ut_tv.tv_sec);
    uptime = seconds * 100 + static_cast<unsigned long>(now.tv_usec / 10000);
  }
  endutent();
  return uptime;
}

#include "liblocal/base/svc_time.h"

#include <atomic>
#include <ctime>

namespace {

std::atomic<int64_t> instant;  // 0: none yet

}  // namespace

int64_t vx_time() { return time(nullptr); }

int64_t svc_time() {
  int64_t now = instant;
  if (now != 0) return now;
  now = vx_time();
  int64_t other = 0;
  return instant.compare_exchange_strong(other, now) ? now : other;
}

void svc_time_reset() { instant = 0; }

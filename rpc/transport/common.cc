#include "rpc/transport/common.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "liblocal/base/vx_select.h"

int32_t __brix_rpc_dtablesize() {
  static std::atomic<int32_t> size = 0;  // 0: not asked yet
  int32_t known = size.load(std::memory_order_relaxed);
  if (known == 0) {
    known = std::min(getdtablesize(), kVxFdSetSize);
    size.store(known, std::memory_order_relaxed);
  }
  return known;
}

int rpc_close(int descriptor) { return close(descriptor); }

int rpc_wait_for(int descriptor, int events, const timeval* time) {
  timespec limit{};
  if (time != nullptr) {
    const timeval normalized = rpc_normalized(*time);
    limit = {normalized.tv_sec, static_cast<long>(normalized.tv_usec) * 1000};
  }
  pollfd polled = {descriptor, static_cast<short>(events), 0};
  const int ready = ppoll(&polled, 1, time != nullptr ? &limit : nullptr, nullptr);
  if (ready == -1) return ready;
  if ((polled.revents & POLLNVAL) == 0) return polled.revents;  // none when the time is up
  errno = EBADF;
  return -1;
}

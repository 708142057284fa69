#include "rpc/transport/common.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>

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

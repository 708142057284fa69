#include "liblocal/base/vx_select.h"

#include <sys/select.h>

namespace {

// The kernel reads and writes plain arrays of bits, however large; only the C library's
// fd_set type stops at 1024 descriptors.
fd_set* as_fd_set(vx_fd_set* set) { return reinterpret_cast<fd_set*>(set); }

}  // namespace

int vx_select(int count, vx_fd_set* readable, vx_fd_set* writable, vx_fd_set* exceptional,
              timeval* timeout) {
  return select(count, as_fd_set(readable), as_fd_set(writable), as_fd_set(exceptional), timeout);
}

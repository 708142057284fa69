#include "platform/wide_select.h"

#include <sys/select.h>

namespace {

// select(2) reads a plain bit array through its fd_set pointers, however large.
fd_set* as_fd_set(uint64_t* words) { return reinterpret_cast<fd_set*>(words); }

}  // namespace

int wide_select(int count, uint64_t* readable, uint64_t* writable, uint64_t* exceptional,
                timeval* timeout) {
  return select(count, as_fd_set(readable), as_fd_set(writable), as_fd_set(exceptional), timeout);
}

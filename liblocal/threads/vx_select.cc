#include "liblocal/threads/vx_select.h"

#include "platform/wide_select.h"

namespace {

uint64_t* words(vx_fd_set* set) { return set != nullptr ? set->words : nullptr; }

}  // namespace

int vx_select(int count, vx_fd_set* readable, vx_fd_set* writable, vx_fd_set* exceptional,
              timeval* timeout) {
  return wide_select(count, words(readable), words(writable), words(exceptional), timeout);
}

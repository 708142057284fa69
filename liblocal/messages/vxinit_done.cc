#include "liblocal/messages/vxinit_done.h"

#include <atomic>

namespace {

std::atomic<int> done;

}  // namespace

int vxinit_done() { return done; }

void _vx_set_initialised() { done = 1; }

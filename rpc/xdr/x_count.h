// XDR streams that only count what is encoded into them.
#pragma once

#include <cstdint>

#include "rpc/xdr/xdr.h"

/// Makes `xdrs` an encoding stream that adds to `*counter`, which the caller zeroes
/// and keeps, the bytes of everything put into it. Nothing can be read from it, its
/// position cannot be set, and it has no memory to give inline.
void xdrcount_create(XDR* xdrs, uint64_t* counter);

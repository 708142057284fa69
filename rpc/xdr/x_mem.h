// XDR streams over a buffer in memory.
#pragma once

#include <cstdint>

#include "rpc/xdr/xdr.h"

/// Makes `xdrs` a stream over the `size` bytes at `buffer`, which the caller keeps; it
/// needs no destroying. A negative size means a buffer whose end is not known:
/// 2147483647 bytes remain.
///
/// get_inline always has what remains in one piece. Setting a position beyond what
/// remains fails. control answers true to kXdrControlBytesAvailable and false to
/// every other request, touching nothing.
void __brix_xdrmem_create(XDR* xdrs, void* buffer, int32_t size, xdr_op operation);

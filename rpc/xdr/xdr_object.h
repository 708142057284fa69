// What is done to whole objects by means of their XDR filter: releasing, measuring
// and copying them.
#pragma once

#include <cstdint>

#include "rpc/xdr/xdr.h"

/// Releases what decoding with `filter` allocated in `*object`; null is allowed.
void __brix_xdr_free(xdrproc_t filter, void* object);

/// __brix_xdr_free, and then frees the object itself.
void __brix_xdr_free_pointer(xdrproc_t filter, void* object);

/// Bytes that `*object` takes on the wire; 0 when its filter fails.
[[nodiscard]] uint64_t __brix_xdr_sizeof(xdrproc_t filter, void* object);

/// A deep copy of `*object`, of `size` bytes; null when its filter fails or there is
/// no memory. Give it back with __brix_xdr_free_pointer.
[[nodiscard]] void* __brix_xdr_dup(xdrproc_t filter, void* object, uint32_t size);

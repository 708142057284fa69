#include "rpc/xdr/xdr_object.h"

#include <cstdlib>

#include "liblocal/base/c_memory.h"
#include "rpc/xdr/x_count.h"
#include "rpc/xdr/x_mem.h"

namespace {

bool count_bytes(xdrproc_t filter, void* object, uint64_t* bytes) {
  XDR counting;
  xdrcount_create(&counting, bytes);
  return filter(&counting, object);
}

bool run_in_memory(xdrproc_t filter, void* object, uint8_t* bytes, uint64_t size,
                   xdr_op operation) {
  XDR memory;
  __brix_xdrmem_create(&memory, bytes, static_cast<int32_t>(size), operation);
  return filter(&memory, object);
}

}  // namespace

void __brix_xdr_free(xdrproc_t filter, void* object) {
  if (object != nullptr) filter(&__xdr, object);
}

void __brix_xdr_free_pointer(xdrproc_t filter, void* object) {
  __brix_xdr_free(filter, object);
  free(object);
}

uint64_t __brix_xdr_sizeof(xdrproc_t filter, void* object) {
  uint64_t bytes = 0;
  return count_bytes(filter, object, &bytes) ? bytes : 0;
}

void* __brix_xdr_dup(xdrproc_t filter, void* object, uint32_t size) {
  uint64_t encoded_size = 0;
  if (!count_bytes(filter, object, &encoded_size) || encoded_size > INT32_MAX) return nullptr;
  c_unique_ptr<uint8_t> encoded(static_cast<uint8_t*>(malloc(static_cast<size_t>(encoded_size))));
  if (encoded == nullptr ||
      !run_in_memory(filter, object, encoded.get(), encoded_size, xdr_op::kEncode)) {
    return nullptr;
  }
  void* copy = calloc(1, size);
  if (copy == nullptr) return nullptr;
  if (run_in_memory(filter, copy, encoded.get(), encoded_size, xdr_op::kDecode)) return copy;
  __brix_xdr_free_pointer(filter, copy);
  return nullptr;
}

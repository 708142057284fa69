#include "rpc/xdr/x_mem.h"

#include <cstring>

#include "rpc/xdr/xdr_units.h"

namespace {

uint8_t* position(XDR* xdrs) { return static_cast<uint8_t*>(xdrs->private_word); }

// Consumes `bytes` bytes and returns where they are; null, with the stream
// unchanged, when there are fewer.
uint8_t* take(XDR* xdrs, uint32_t bytes) {
  if (static_cast<uint32_t>(xdrs->remaining) < bytes) return nullptr;
  uint8_t* at = position(xdrs);
  xdrs->private_word = at + bytes;
  xdrs->remaining -= static_cast<int32_t>(bytes);
  return at;
}

// Reads a big-endian Wire and stores it extended, as a Wire is, to a T.
template <typename Wire, typename T>
bool get(XDR* xdrs, T* value) {
  const uint8_t* at = take(xdrs, sizeof(Wire));
  if (at == nullptr) return false;
  *value = static_cast<T>(xdr_load<Wire>(at));
  return true;
}

template <typename Wire, typename T>
bool put(XDR* xdrs, const T* value) {
  uint8_t* at = take(xdrs, sizeof(Wire));
  if (at == nullptr) return false;
  xdr_store(at, static_cast<Wire>(*value));
  return true;
}

bool mem_get_bytes(XDR* xdrs, void* bytes, uint32_t length) {
  if (length == 0) return true;  // of a buffer and into memory that may be null
  const uint8_t* at = take(xdrs, length);
  if (at == nullptr) return false;
  memcpy(bytes, at, length);
  return true;
}

bool mem_put_bytes(XDR* xdrs, const void* bytes, uint32_t length) {
  if (length == 0) return true;
  uint8_t* at = bytes != nullptr ? take(xdrs, length) : nullptr;
  if (at == nullptr) return false;
  memcpy(at, bytes, length);
  return true;
}

uint32_t mem_get_position(XDR* xdrs) { return static_cast<uint32_t>(position(xdrs) - xdrs->base); }

bool mem_set_position(XDR* xdrs, uint32_t wanted) {
  uint32_t end = mem_get_position(xdrs) + static_cast<uint32_t>(xdrs->remaining);
  if (wanted > end) return false;
  xdrs->private_word = xdrs->base + wanted;
  xdrs->remaining = static_cast<int32_t>(end - wanted);
  return true;
}

// A negative length is more than any buffer has.
uint8_t* mem_get_inline(XDR* xdrs, int32_t length) {
  return take(xdrs, static_cast<uint32_t>(length));
}

void mem_destroy(XDR* /*xdrs*/) {}

bool mem_control(XDR* /*xdrs*/, uint32_t request, void* /*information*/) {
  return request == kXdrControlBytesAvailable;
}

int32_t mem_get_remaining(XDR* xdrs) { return xdrs->remaining; }

constexpr xdr_ops kMemoryOps = {
    get<uint32_t, long>,
    put<uint32_t, long>,
    mem_get_bytes,
    mem_put_bytes,
    mem_get_position,
    mem_set_position,
    mem_get_inline,
    mem_destroy,
    mem_control,
    get<uint32_t, int32_t>,
    put<uint32_t, int32_t>,
    get<uint64_t, int64_t>,
    put<uint64_t, int64_t>,
    mem_get_remaining,
};

}  // namespace

void __brix_xdrmem_create(XDR* xdrs, void* buffer, int32_t size, xdr_op operation) {
  xdrs->operation = operation;
  xdrs->ops = &kMemoryOps;
  xdrs->private_word = buffer;
  xdrs->base = static_cast<uint8_t*>(buffer);
  xdrs->remaining = size < 0 ? INT32_MAX : size;
}

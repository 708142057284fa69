#include "rpc/xdr/xdr.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>

#include "liblocal/base/c_memory.h"
#include "rpc/xdr/xdr_growth.h"

namespace {

constexpr uint8_t kZeros[kXdrUnit] = {};

// Runs the slot of the stream that the operation asks for, if any.
template <auto put, auto get, typename T>
bool run_slot(XDR* xdrs, T* value) {
  switch (xdrs->operation) {
    case xdr_op::kEncode:
      return (xdrs->ops->*put)(xdrs, value);
    case xdr_op::kDecode:
      return (xdrs->ops->*get)(xdrs, value);
    default:
      return true;
  }
}

// A value that travels as an integer of one or two units.
template <typename Integer, typename T>
bool as_integer(XDR* xdrs, T* value, auto to_integer, auto from_integer) {
  Integer integer = xdrs->operation == xdr_op::kEncode ? to_integer(*value) : 0;
  if constexpr (sizeof integer == kXdrUnit) {
    if (!xdr_int32_t(xdrs, &integer)) return false;
  } else {
    if (!xdr_int64_t(xdrs, &integer)) return false;
  }
  if (xdrs->operation == xdr_op::kDecode) *value = from_integer(integer);
  return true;
}

// One unit on the wire for a host type of another size: the low 32 bits go out, and
// what comes in is taken as a Wire before it is cut or extended to a T. A char travels
// with its sign.
template <typename Wire, typename T>
bool as_unit(XDR* xdrs, T* value) {
  return as_integer<int32_t>(
      xdrs, value, [](T whole) { return static_cast<int32_t>(whole); },
      [](int32_t unit) { return static_cast<T>(static_cast<Wire>(unit)); });
}

bool put_padding(XDR* xdrs, uint32_t length) {
  uint32_t padding = xdr_padding(length);
  return padding == 0 || xdrs->ops->put_bytes(xdrs, kZeros, padding);
}

bool skip_padding(XDR* xdrs, uint32_t length) {
  uint8_t scratch[kXdrUnit];
  uint32_t padding = xdr_padding(length);
  return padding == 0 || xdrs->ops->get_bytes(xdrs, scratch, padding);
}

bool get_length(XDR* xdrs, uint32_t* length, uint32_t maximum) {
  return xdrs->ops->get_int32(xdrs, reinterpret_cast<int32_t*>(length)) &&
         *length <= std::min(maximum, kXdrMaxBytes);
}

bool put_length(XDR* xdrs, uint32_t length) {
  const auto unit = static_cast<int32_t>(length);
  return xdrs->ops->put_int32(xdrs, &unit);
}

// As get_new_bytes, from a stream that does not know what it still has: the buffer grows with
// what has arrived.
uint8_t* get_growing_bytes(XDR* xdrs, uint32_t wire_bytes, uint32_t capacity) {
  c_unique_ptr<uint8_t> bytes;
  uint32_t done = 0;
  for (uint32_t held = xdr_first_piece(wire_bytes, 1);; held = xdr_next_piece(held, wire_bytes)) {
    void* larger = realloc(bytes.get(), held < wire_bytes ? held : capacity);
    if (larger == nullptr) return nullptr;
    (void)bytes.release();
    bytes.reset(static_cast<uint8_t*>(larger));
    if (!xdrs->ops->get_bytes(xdrs, bytes.get() + done, held - done)) return nullptr;
    if (held == wire_bytes) return bytes.release();
    done = held;
  }
}

// Reads `wire_bytes` into a new buffer of `capacity` bytes, which is not smaller.
// Null when the stream does not have them, and without memory.
uint8_t* get_new_bytes(XDR* xdrs, uint32_t wire_bytes, uint32_t capacity) {
  const int32_t remaining = xdrs->ops->get_remaining(xdrs);
  if (remaining == kXdrRemainingUnknown) return get_growing_bytes(xdrs, wire_bytes, capacity);
  if (wire_bytes > static_cast<uint32_t>(remaining)) return nullptr;
  auto* bytes = static_cast<uint8_t*>(malloc(capacity));
  if (bytes == nullptr || xdrs->ops->get_bytes(xdrs, bytes, wire_bytes)) return bytes;
  free(bytes);
  return nullptr;
}

template <typename T>
bool release(T** memory) {
  free(*memory);
  *memory = nullptr;
  return true;
}

bool encode_bytes(XDR* xdrs, const void* bytes, uint32_t size, uint32_t maximum) {
  return size <= std::min(maximum, kXdrMaxBytes) && put_length(xdrs, size) &&
         xdrs->ops->put_bytes(xdrs, bytes, size) && put_padding(xdrs, size);
}

bool decode_bytes(XDR* xdrs, uint8_t** bytes, uint32_t* size, uint32_t maximum) {
  uint32_t length = 0;
  if (!get_length(xdrs, &length, maximum)) return false;
  *size = length;
  if (length == 0) return true;
  if (*bytes != nullptr) {
    return xdrs->ops->get_bytes(xdrs, *bytes, length) && skip_padding(xdrs, length);
  }
  uint32_t padded = length + xdr_padding(length);
  *bytes = get_new_bytes(xdrs, padded, padded);
  return *bytes != nullptr;
}

// The terminator of a string serves as a single byte of padding.
bool encode_string(XDR* xdrs, const char* text, uint32_t maximum) {
  const size_t length = text != nullptr ? strlen(text) : 0;
  if (length > std::min(maximum, kXdrMaxBytes)) return false;
  const auto size = static_cast<uint32_t>(length);
  if (!put_length(xdrs, size)) return false;
  if (xdr_padding(size) == 1) return xdrs->ops->put_bytes(xdrs, text, size + 1);
  return xdrs->ops->put_bytes(xdrs, text, size) && put_padding(xdrs, size);
}

bool decode_string(XDR* xdrs, char** text, uint32_t maximum) {
  uint32_t size = 0;
  if (!get_length(xdrs, &size, maximum)) return false;
  if (*text == nullptr) {
    // Three more bytes hold the terminator or the padding, whichever is longer.
    uint8_t* bytes = get_new_bytes(xdrs, size + xdr_padding(size), size + 3);
    if (bytes == nullptr) return false;
    *text = reinterpret_cast<char*>(bytes);
  } else if (xdr_padding(size) == 1) {
    if (!xdrs->ops->get_bytes(xdrs, *text, size + 1)) return false;
  } else if (!xdrs->ops->get_bytes(xdrs, *text, size) || !skip_padding(xdrs, size)) {
    return false;
  }
  (*text)[size] = '\0';
  return true;
}

}  // namespace

XDR __xdr = {xdr_op::kFree, nullptr, nullptr, nullptr, nullptr, 0};

bool __brix_xdr_void(XDR* /*xdrs*/, void* /*object*/) { return true; }

bool xdr_int32_t(XDR* xdrs, int32_t* value) {
  return run_slot<&xdr_ops::put_int32, &xdr_ops::get_int32>(xdrs, value);
}

bool xdr_uint32_t(XDR* xdrs, uint32_t* value) {
  return xdr_int32_t(xdrs, reinterpret_cast<int32_t*>(value));
}

bool __brix_xdr_enum(XDR* xdrs, int32_t* value) { return xdr_int32_t(xdrs, value); }
bool __brix_xdr_int(XDR* xdrs, int32_t* value) { return as_unit<int32_t>(xdrs, value); }
bool __brix_xdr_u_int(XDR* xdrs, uint32_t* value) { return as_unit<uint32_t>(xdrs, value); }
bool __brix_xdr_short(XDR* xdrs, int16_t* value) { return as_unit<int32_t>(xdrs, value); }
bool __brix_xdr_u_short(XDR* xdrs, uint16_t* value) { return as_unit<uint32_t>(xdrs, value); }
bool __brix_xdr_char(XDR* xdrs, char* value) { return as_unit<int32_t>(xdrs, value); }
bool xdr_shorten(XDR* xdrs, long* value) { return as_unit<int32_t>(xdrs, value); }
bool xdr_u_shorten(XDR* xdrs, unsigned long* value) { return as_unit<uint32_t>(xdrs, value); }
bool __brix_xdr_time_t(XDR* xdrs, time_t* value) { return as_unit<int32_t>(xdrs, value); }

bool __brix_xdr_bool(XDR* xdrs, int32_t* value) {
  auto truth = [](int32_t any) { return any != 0 ? 1 : 0; };
  return as_integer<int32_t>(xdrs, value, truth, truth);
}

bool __brix_xdr_long(XDR* xdrs, long* value) {
  return run_slot<&xdr_ops::put_long, &xdr_ops::get_long>(xdrs, value);
}

bool __brix_xdr_u_long(XDR* xdrs, unsigned long* value) {
  if (!__brix_xdr_long(xdrs, reinterpret_cast<long*>(value))) return false;
  // A kind of stream may extend the sign.
  if (xdrs->operation == xdr_op::kDecode) *value = static_cast<uint32_t>(*value);
  return true;
}

bool xdr_int64_t(XDR* xdrs, int64_t* value) {
  return run_slot<&xdr_ops::put_int64, &xdr_ops::get_int64>(xdrs, value);
}

bool xdr_uint64_t(XDR* xdrs, uint64_t* value) {
  return xdr_int64_t(xdrs, reinterpret_cast<int64_t*>(value));
}

bool __brix_xdr_float(XDR* xdrs, float* value) {
  return as_integer<int32_t>(xdrs, value, std::bit_cast<int32_t, float>,
                             std::bit_cast<float, int32_t>);
}

bool __brix_xdr_double(XDR* xdrs, double* value) {
  return as_integer<int64_t>(xdrs, value, std::bit_cast<int64_t, double>,
                             std::bit_cast<double, int64_t>);
}

bool __brix_xdr_opaque(XDR* xdrs, void* bytes, uint32_t count) {
  if (count == 0) return true;
  switch (xdrs->operation) {
    case xdr_op::kEncode:
      return xdrs->ops->put_bytes(xdrs, bytes, count) && put_padding(xdrs, count);
    case xdr_op::kDecode:
      return xdrs->ops->get_bytes(xdrs, bytes, count) && skip_padding(xdrs, count);
    case xdr_op::kFree:
      return true;
  }
  return false;
}

bool xdr_sha_digest(XDR* xdrs, uint8_t* bytes) {
  return __brix_xdr_opaque(xdrs, bytes, kXdrDigestSize);
}

bool xdr_vxui_t(XDR* xdrs, uint8_t* bytes) {
  return __brix_xdr_opaque(xdrs, bytes, kXdrDigestSize);
}

bool __brix_xdr_bytes(XDR* xdrs, uint8_t** bytes, uint32_t* size, uint32_t maximum) {
  switch (xdrs->operation) {
    case xdr_op::kEncode:
      return encode_bytes(xdrs, *bytes, *size, maximum);
    case xdr_op::kDecode:
      return decode_bytes(xdrs, bytes, size, maximum);
    case xdr_op::kFree:
      return release(bytes);
  }
  return false;
}

bool __brix_xdr_string(XDR* xdrs, char** text, uint32_t maximum) {
  switch (xdrs->operation) {
    case xdr_op::kEncode:
      return encode_string(xdrs, *text, maximum);
    case xdr_op::kDecode:
      return decode_string(xdrs, text, maximum);
    case xdr_op::kFree:
      return release(text);
  }
  return false;
}

bool __brix_xdr_wrapstring(XDR* xdrs, char** text) {
  return __brix_xdr_string(xdrs, text, UINT32_MAX);
}

#include "rpc/xdr/xdr_compound.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "rpc/xdr/xdr_growth.h"
#include "rpc/xdr/xdr_units.h"

namespace {

// Runs the filter of 32-bit integers on all of them at once, where the stream has them in one
// piece: an array of these is copied, not called for. False, with nothing done, elsewhere.
bool run_on_block(XDR* xdrs, uint8_t* elements, uint32_t count, uint32_t element_size,
                  xdrproc_t element) {
  constexpr xdrproc_t kIntegers[] = {xdr_filter<xdr_int32_t>, xdr_filter<xdr_uint32_t>,
                                     xdr_filter<__brix_xdr_enum>, xdr_filter<__brix_xdr_int>,
                                     xdr_filter<__brix_xdr_u_int>};
  const bool are_integers = std::ranges::find(kIntegers, element) != std::end(kIntegers);
  if (!are_integers || element_size != kXdrUnit || count > INT32_MAX / kXdrUnit) return false;
  const bool encode = xdrs->operation == xdr_op::kEncode;
  if (!encode && xdrs->operation != xdr_op::kDecode) return true;
  uint8_t* block = xdrs->ops->get_inline(xdrs, static_cast<int32_t>(count * kXdrUnit));
  if (block == nullptr) return false;
  uint8_t* __restrict to = encode ? block : elements;
  const uint8_t* __restrict from = encode ? elements : block;
  for (size_t at = 0; at < size_t{count} * kXdrUnit; at += kXdrUnit) {
    const auto unit = xdr_load<uint32_t>(from + at);
    memcpy(to + at, &unit, sizeof unit);
  }
  return true;
}

// Decodes `count` elements, more than none, into a new array that the caller releases
// also after a failure: `*count` is then the number of elements that it has.
bool decode_new_array(XDR* xdrs, void** array, uint32_t* count, uint32_t element_size,
                      xdrproc_t element) {
  const uint32_t wanted = *count;
  *count = 0;
  uint32_t held = xdr_first_piece(wanted, element_size);
  *array = calloc(held, element_size);
  while (*array != nullptr) {
    uint32_t done = *count;
    *count = held;
    auto* elements = static_cast<uint8_t*>(*array);
    size_t size = element_size;
    if (!__brix_xdr_vector(xdrs, elements + done * size, held - done, element_size, element)) {
      return false;
    }
    if (held == wanted) return true;
    held = xdr_next_piece(held, wanted);
    void* larger = realloc(*array, held * size);
    if (larger == nullptr) return false;
    *array = larger;
    memset(static_cast<uint8_t*>(larger) + *count * size, 0, (held - *count) * size);
  }
  return false;
}

// Gives a null `*object` a zeroed object of `size` bytes; false without memory.
bool make_object(void** object, uint32_t size) {
  if (*object == nullptr) *object = calloc(1, size);
  return *object != nullptr;
}

void release(void** memory) {
  free(*memory);
  *memory = nullptr;
}

}  // namespace

bool __brix_xdr_array(XDR* xdrs, void** array, uint32_t* count, uint32_t maximum,
                      uint32_t element_size, xdrproc_t element) {
  if (!__brix_xdr_u_int(xdrs, count)) return false;
  bool free_it = xdrs->operation == xdr_op::kFree;
  bool decode = xdrs->operation == xdr_op::kDecode;
  if (!free_it && (*count > maximum || element_size == 0 || UINT32_MAX / element_size < *count)) {
    // A later free must not run beyond an array that the caller supplied.
    if (decode) *count = 0;
    return false;
  }
  if (*array == nullptr) {
    if (free_it || *count == 0) return true;
    return decode && decode_new_array(xdrs, array, count, element_size, element);
  }
  bool done = __brix_xdr_vector(xdrs, *array, *count, element_size, element);
  if (free_it) release(array);
  return done;
}

bool __brix_xdr_vector(XDR* xdrs, void* array, uint32_t count, uint32_t element_size,
                       xdrproc_t element) {
  auto* elements = static_cast<uint8_t*>(array);
  if (run_on_block(xdrs, elements, count, element_size, element)) return true;
  for (size_t i = 0; i < count; ++i) {
    if (!element(xdrs, elements + i * element_size)) return false;
  }
  return true;
}

bool __brix_xdr_reference(XDR* xdrs, void** object, uint32_t size, xdrproc_t filter) {
  if (*object == nullptr && xdrs->operation == xdr_op::kFree) return true;
  if (xdrs->operation == xdr_op::kDecode && !make_object(object, size)) return false;
  bool done = filter(xdrs, *object);
  if (xdrs->operation == xdr_op::kFree) release(object);
  return done;
}

bool __brix_xdr_pointer(XDR* xdrs, void** object, uint32_t size, xdrproc_t filter) {
  int32_t there = *object != nullptr ? 1 : 0;
  switch (xdrs->operation) {
    case xdr_op::kEncode:
      return xdr_int32_t(xdrs, &there) && (there == 0 || filter(xdrs, *object));
    case xdr_op::kDecode:
      if (!xdr_int32_t(xdrs, &there)) return false;
      if (there == 0) {
        *object = nullptr;
        return true;
      }
      return make_object(object, size) && filter(xdrs, *object);
    case xdr_op::kFree:
      if (*object != nullptr) filter(xdrs, *object);
      release(object);
      return true;
  }
  return false;
}

bool __brix_xdr_union(XDR* xdrs, int32_t* discriminant, void* object, const xdr_discrim* choices,
                      xdrarm_t default_arm) {
  if (!__brix_xdr_enum(xdrs, discriminant)) return false;
  for (; choices->arm != nullptr; ++choices) {
    if (choices->value == *discriminant) return choices->arm(xdrs, object, *discriminant);
  }
  return default_arm != nullptr && default_arm(xdrs, object, *discriminant);
}

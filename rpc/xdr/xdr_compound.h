// XDR filters of compound types: arrays, references, optional objects and unions
// (RFC 4506, sections 4.12 to 4.15 and 4.19). xdr.h says what a filter is and promises.
#pragma once

#include <cstdint>

#include "rpc/xdr/xdr.h"

/// A counted array (RFC 4506, section 4.13): the count, then the elements of
/// `element_size` bytes each, by `element`. More than `maximum` elements fail in both
/// directions, and an element size of 0 does.
///
/// Decoding stores the count in `*count`; a count that is refused is stored as 0. A
/// null `*array` gets a zeroed array of its own, to be freed by the free operation; none
/// for a count of 0. No memory: false, with ENOMEM in errno. An array supplied by the
/// caller must hold `maximum` elements. Free runs the filter on every element, stopping at
/// the first failure, releases the array and sets `*array` to null. Elements that take
/// nothing on the wire are bounded by `maximum` alone.
///
/// Arrays of xdr_filter<F> with F one of the 32-bit integer filters go through streams that
/// have them in one piece at the speed of a copy.
bool __brix_xdr_array(XDR* xdrs, void** array, uint32_t* count, uint32_t maximum,
                      uint32_t element_size, xdrproc_t element);

/// A fixed array (RFC 4506, section 4.12): `count` elements at `array` in order,
/// stopping at the first failure. As fast as __brix_xdr_array.
bool __brix_xdr_vector(XDR* xdrs, void* array, uint32_t count, uint32_t element_size,
                       xdrproc_t element);

/// The object that `*object` points to, which is always there on the wire. Decoding gives a
/// null `*object` a zeroed object of `size` bytes, to be freed by the free operation.
/// Encoding a null `*object` passes null to the filter. Free runs the filter, frees
/// the object, sets `*object` to null and returns what the filter did.
bool __brix_xdr_reference(XDR* xdrs, void** object, uint32_t size, xdrproc_t filter);

/// An optional object (RFC 4506, section 4.19): one unit says whether there is one, then as
/// __brix_xdr_reference. Decoding sets `*object` to null when there is none. Free always succeeds.
bool __brix_xdr_pointer(XDR* xdrs, void** object, uint32_t size, xdrproc_t filter);

/// One arm of a union.
struct xdr_discrim {
  int32_t value;  //!< of the discriminant
  xdrarm_t arm;   //!< null ends the list
};

/// A discriminated union (RFC 4506, section 4.15): the discriminant, then the arm of
/// the first of `choices` that has its value, called with `object` and the
/// discriminant; `default_arm` when there is none. Fails when that is null too.
bool __brix_xdr_union(XDR* xdrs, int32_t* discriminant, void* object, const xdr_discrim* choices,
                      xdrarm_t default_arm);

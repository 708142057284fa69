// An XDR object whose decoding allocates in every way that there is.
#pragma once

#include <cstdint>

#include "rpc/xdr/xdr.h"
#include "rpc/xdr/xdr_compound.h"

struct Item {
  char* name;
  uint32_t name_count;
  char** names;
  uint64_t* always;
  Item* optional;
};

template <typename T>
void** as_void(T** pointer) {
  return reinterpret_cast<void**>(pointer);
}

inline bool item_filter(XDR* xdrs, Item* item) {
  return __brix_xdr_wrapstring(xdrs, &item->name) &&
         __brix_xdr_array(xdrs, as_void(&item->names), &item->name_count, UINT32_MAX, sizeof(char*),
                          xdr_filter<__brix_xdr_wrapstring>) &&
         __brix_xdr_reference(xdrs, as_void(&item->always), sizeof(uint64_t),
                              xdr_filter<xdr_uint64_t>) &&
         __brix_xdr_pointer(xdrs, as_void(&item->optional), sizeof(Item), xdr_filter<item_filter>);
}

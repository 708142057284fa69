#include "rpc/portmap/pmap.h"

bool __brix_xdr_pmap(XDR* xdrs, pmap* mapping) {
  return __brix_xdr_u_long(xdrs, &mapping->program) && __brix_xdr_u_long(xdrs, &mapping->version) &&
         __brix_xdr_u_long(xdrs, &mapping->protocol) && __brix_xdr_u_long(xdrs, &mapping->port);
}

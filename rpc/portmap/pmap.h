// The port mapper protocol, version 2 (RFC 1833, section 3): who serves which program
// on which port.
#pragma once

#include <cstdint>

#include "rpc/xdr/xdr.h"

constexpr unsigned long kPmapProgram = 100000;
constexpr unsigned long kPmapVersion = 2;
constexpr unsigned long kPmapGetPort = 3;  //!< procedure: a pmap record to a 16-bit port
constexpr uint16_t kOwnMapperPort = 7938;  //!< of the runtime's own port mapper
constexpr uint16_t kStandardMapperPort = 111;

/// A program on a port; `protocol` is the IP protocol number. 32 bits each on the wire.
struct pmap {
  unsigned long program;
  unsigned long version;
  unsigned long protocol;
  unsigned long port;
};

/// The filter of the record, as xdr.h describes filters.
bool __brix_xdr_pmap(XDR* xdrs, pmap* mapping);

// The filter of a whole RPC call message (RFC 5531, section 9).
#pragma once

#include "rpc/messages/rpc_msg.h"
#include "rpc/xdr/xdr.h"

/// A call message up to its arguments. Fails in both directions for a direction
/// other than kRpcCall, an RPC version other than kRpcVersion, and a credential or
/// verifier body of more than kMaxAuthBytes.
///
/// Decoding gives a null credential or verifier body a buffer of the body's length;
/// one supplied by the caller must hold kMaxAuthBytes. Free releases both. Thread
/// safe.
bool __brix_xdr_callmsg(XDR* xdrs, rpc_call_message* call);

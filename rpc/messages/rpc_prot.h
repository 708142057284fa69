// Filters of the RPC message layer (RFC 5531), and what a reply means for the call.
//
// xdr.h says what filters promise. Thread safe.
#pragma once

#include <cstdint>

#include "rpc/messages/rpc_msg.h"
#include "rpc/xdr/xdr.h"

struct rpc_err;

constexpr uint32_t kRpcCallHeaderSize = 20;  //!< bytes of __brix_xdr_callhdr
constexpr uint32_t kDesBlockSize = 8;        //!< bytes

/// A credential or verifier: its flavour, then its body of at most kMaxAuthBytes.
/// Decoding gives a null body a buffer.
bool __brix_xdr_opaque_auth(XDR* xdrs, opaque_auth* auth);

/// kDesBlockSize opaque bytes at `block`.
bool __brix_xdr_des_block(XDR* xdrs, uint8_t* block);

/// Encodes the part of a call that is the same for every call of a client: the
/// transaction, the direction and RPC version (which it sets to kRpcCall and
/// kRpcVersion), the program and its version; kRpcCallHeaderSize bytes. Fails for
/// every operation but encode.
bool __brix_xdr_callhdr(XDR* xdrs, rpc_call_message* call);

/// A reply. Fails when the direction is not kRpcReply, the reply state neither
/// accepted nor denied, and a denial of an unknown kind. An accepted reply runs the
/// caller's results filter when its state is kAcceptSuccess, reads the versions when it is
/// kAcceptProgramMismatch, and nothing more for any other state.
///
/// Decoding gives a null verifier body a buffer; it is the caller's to release with
/// the free operation of __brix_xdr_opaque_auth, also after a failure.
bool __brix_xdr_replymsg(XDR* xdrs, rpc_reply_message* reply);

/// Fills `error` with what a decoded `reply` says of the call: its status and, where
/// that has one, the detail; other details are zero.
void __brix_seterr_reply(const rpc_reply_message* reply, rpc_err* error);

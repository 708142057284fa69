#include "rpc/messages/rpc_cmsg.h"

#include <iterator>

#include "rpc/messages/rpc_prot.h"
#include "rpc/xdr/xdr_compound.h"

namespace {

// The words before the credential, written or read in one piece where the stream has one.
bool fixed_part_filter(XDR* xdrs, rpc_call_message* call) {
  uint32_t words[] = {
      static_cast<uint32_t>(call->transaction), static_cast<uint32_t>(call->direction),
      static_cast<uint32_t>(call->rpc_version), static_cast<uint32_t>(call->program),
      static_cast<uint32_t>(call->version),     static_cast<uint32_t>(call->procedure)};
  if (!__brix_xdr_vector(xdrs, words, std::size(words), sizeof words[0],
                         xdr_filter<xdr_uint32_t>)) {
    return false;
  }
  if (xdrs->operation == xdr_op::kDecode) {
    call->transaction = words[0];
    call->direction = static_cast<int32_t>(words[1]);
    call->rpc_version = words[2];
    call->program = words[3];
    call->version = words[4];
    call->procedure = words[5];
  }
  return true;
}

bool is_call(const rpc_call_message* call) {
  return call->direction == kRpcCall && call->rpc_version == kRpcVersion;
}

bool may_be_encoded(const rpc_call_message* call) {
  return is_call(call) && call->credential.length <= kMaxAuthBytes &&
         call->verifier.length <= kMaxAuthBytes;
}

bool auth_fields_filter(XDR* xdrs, rpc_call_message* call) {
  return __brix_xdr_opaque_auth(xdrs, &call->credential) &&
         __brix_xdr_opaque_auth(xdrs, &call->verifier);
}

}  // namespace

bool __brix_xdr_callmsg(XDR* xdrs, rpc_call_message* call) {
  switch (xdrs->operation) {
    case xdr_op::kEncode:
      return may_be_encoded(call) && fixed_part_filter(xdrs, call) &&
             auth_fields_filter(xdrs, call);
    case xdr_op::kDecode:
      return fixed_part_filter(xdrs, call) && is_call(call) && auth_fields_filter(xdrs, call);
    case xdr_op::kFree:
      return auth_fields_filter(xdrs, call);
  }
  return false;
}

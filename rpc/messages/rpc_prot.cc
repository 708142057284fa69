#include "rpc/messages/rpc_prot.h"

#include <iterator>

#include "rpc/messages/rpc_err.h"
#include "rpc/xdr/xdr_compound.h"

namespace {

bool versions_filter(XDR* xdrs, rpc_versions* versions) {
  return __brix_xdr_u_long(xdrs, &versions->low) && __brix_xdr_u_long(xdrs, &versions->high);
}

bool accepted_filter(XDR* xdrs, rpc_accepted_reply* reply) {
  if (!__brix_xdr_opaque_auth(xdrs, &reply->verifier) || !__brix_xdr_enum(xdrs, &reply->state)) {
    return false;
  }
  switch (reply->state) {
    case kAcceptSuccess:
      return reply->results_filter(xdrs, reply->results);
    case kAcceptProgramMismatch:
      return versions_filter(xdrs, &reply->versions);
    default:
      return true;
  }
}

bool denied_filter(XDR* xdrs, rpc_denied_reply* reply) {
  if (!__brix_xdr_enum(xdrs, &reply->state)) return false;
  switch (reply->state) {
    case kRejectRpcMismatch:
      return versions_filter(xdrs, &reply->versions);
    case kRejectAuthError:
      return __brix_xdr_enum(xdrs, &reply->why);
    default:
      return false;
  }
}

bool accepted_arm(XDR* xdrs, void* reply, int32_t /*state*/) {
  return accepted_filter(xdrs, &static_cast<rpc_reply_message*>(reply)->accepted);
}

bool denied_arm(XDR* xdrs, void* reply, int32_t /*state*/) {
  return denied_filter(xdrs, &static_cast<rpc_reply_message*>(reply)->denied);
}

constexpr xdr_discrim kReplyArms[] = {
    {kReplyAccepted, accepted_arm}, {kReplyDenied, denied_arm}, {0, nullptr}};

void set_failed(rpc_err* error, long s1, long s2) {
  error->status = RPC_FAILED;
  error->other = {s1, s2};
}

void set_accepted(const rpc_accepted_reply& reply, rpc_err* error) {
  // By rpc_accept_state.
  constexpr clnt_stat kStatuses[] = {RPC_SUCCESS,     RPC_PROGUNAVAIL,    RPC_PROGVERSMISMATCH,
                                     RPC_PROCUNAVAIL, RPC_CANTDECODEARGS, RPC_SYSTEMERROR};
  if (reply.state < 0 || reply.state >= std::ssize(kStatuses)) {
    set_failed(error, kReplyAccepted, reply.state);
    return;
  }
  error->status = kStatuses[reply.state];
  if (reply.state == kAcceptProgramMismatch) error->versions = reply.versions;
}

void set_denied(const rpc_denied_reply& reply, rpc_err* error) {
  switch (reply.state) {
    case kRejectRpcMismatch:
      error->status = RPC_VERSMISMATCH;
      error->versions = reply.versions;
      break;
    case kRejectAuthError:
      error->status = RPC_AUTHERROR;
      error->why = reply.why;
      break;
    default:
      set_failed(error, kReplyDenied, reply.state);
  }
}

}  // namespace

bool __brix_xdr_opaque_auth(XDR* xdrs, opaque_auth* auth) {
  return __brix_xdr_enum(xdrs, &auth->flavour) &&
         __brix_xdr_bytes(xdrs, &auth->body, &auth->length, kMaxAuthBytes);
}

bool __brix_xdr_des_block(XDR* xdrs, uint8_t* block) {
  return __brix_xdr_opaque(xdrs, block, kDesBlockSize);
}

bool __brix_xdr_callhdr(XDR* xdrs, rpc_call_message* call) {
  if (xdrs->operation != xdr_op::kEncode) return false;
  call->direction = kRpcCall;
  call->rpc_version = kRpcVersion;
  return __brix_xdr_u_long(xdrs, &call->transaction) && __brix_xdr_enum(xdrs, &call->direction) &&
         __brix_xdr_u_long(xdrs, &call->rpc_version) && __brix_xdr_u_long(xdrs, &call->program) &&
         __brix_xdr_u_long(xdrs, &call->version);
}

bool __brix_xdr_replymsg(XDR* xdrs, rpc_reply_message* reply) {
  return __brix_xdr_u_long(xdrs, &reply->transaction) && __brix_xdr_enum(xdrs, &reply->direction) &&
         reply->direction == kRpcReply &&
         __brix_xdr_union(xdrs, &reply->state, reply, kReplyArms, nullptr);
}

void __brix_seterr_reply(const rpc_reply_message* reply, rpc_err* error) {
  *error = {};
  if (reply->state == kReplyAccepted) {
    set_accepted(reply->accepted, error);
  } else if (reply->state == kReplyDenied) {
    set_denied(reply->denied, error);
  } else {
    set_failed(error, reply->state, 0);
  }
}

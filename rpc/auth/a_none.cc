#include "rpc/auth/a_none.h"

#include "liblocal/base/vx_once.h"
#include "rpc/messages/rpc_prot.h"
#include "rpc/xdr/x_mem.h"

namespace {

struct NoneRecord {
  AUTH handle;
  uint8_t encoded[20];  // credential and verifier
  uint32_t encoded_length;
};

// Written once, under the once control.
NoneRecord record;
vx_once_control record_once;

void next_verifier(AUTH* /*auth*/) {}

bool marshal(AUTH* /*auth*/, XDR* xdrs) {
  return xdrs->ops->put_bytes(xdrs, record.encoded, record.encoded_length);
}

bool validate(AUTH* /*auth*/, const opaque_auth* /*verifier*/) { return true; }
bool refresh(AUTH* /*auth*/) { return false; }
bool needs_refresh(AUTH* /*auth*/, bool /*confirmed*/, CLIENT* /*client*/) { return false; }
void destroy(AUTH* /*auth*/) {}

bool control(AUTH* /*auth*/, uint32_t request, void* information) {
  if (request != kAuthGetMethod || information == nullptr) return false;
  *static_cast<int32_t*>(information) = kAuthMethodNone;
  return true;
}

constexpr auth_ops kNoneOps = {next_verifier, marshal, validate, refresh,
                               needs_refresh, destroy, control};

void build_record() {
  AUTH* handle = &record.handle;
  *handle = {__brix_null_auth, __brix_null_auth, {}, &kNoneOps, &record};
  XDR xdrs;
  __brix_xdrmem_create(&xdrs, record.encoded, sizeof record.encoded, xdr_op::kEncode);
  __brix_xdr_opaque_auth(&xdrs, &handle->credential);
  __brix_xdr_opaque_auth(&xdrs, &handle->verifier);
  record.encoded_length = xdrs.ops->get_position(&xdrs);
}

}  // namespace

AUTH* __brix_authnone_create() {
  vx_once(&record_once, build_record);
  return &record.handle;
}

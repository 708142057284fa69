#include "rpc/auth/a_unix.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "liblocal/base/c_memory.h"
#include "liblocal/hosts/localhost.h"
#include "liblocal/messages/debug.h"
#include "liblocal/startup/vxids.h"
#include "rpc/messages/rpc_prot.h"
#include "rpc/xdr/x_mem.h"
#include "rpc/xdr/xdr_compound.h"
#include "rpc/xdr/xdr_object.h"

namespace {

constexpr int32_t kEncodedSize = 65488;
constexpr int kAuthDebugLevel = 3;

struct SystemRecord {
  opaque_auth full_credential;   // its body is owned
  opaque_auth short_credential;  // from the server; its body is owned
  uint32_t encoded_length;
  uint8_t encoded[kEncodedSize];  // credential and verifier, as they are marshalled
};

SystemRecord* record_of(AUTH* auth) { return static_cast<SystemRecord*>(auth->private_data); }

bool uses_full_credential(AUTH* auth) {
  return auth->credential.body == record_of(auth)->full_credential.body;
}

// Encodes what marshal puts; to be done whenever the credential has changed.
bool encode_fields(AUTH* auth) {
  SystemRecord* record = record_of(auth);
  XDR xdrs;
  __brix_xdrmem_create(&xdrs, record->encoded, kEncodedSize, xdr_op::kEncode);
  bool encoded = __brix_xdr_opaque_auth(&xdrs, &auth->credential) &&
                 __brix_xdr_opaque_auth(&xdrs, &auth->verifier);
  if (encoded) record->encoded_length = xdrs.ops->get_position(&xdrs);
  return encoded;
}

// Encodes `parms` into the handle's area for the moment, and copies them from there.
bool make_full_credential(SystemRecord* record, authsys_parms* parms) {
  XDR xdrs;
  __brix_xdrmem_create(&xdrs, record->encoded, kMaxAuthBytes, xdr_op::kEncode);
  if (!__brix_xdr_authunix_parms(&xdrs, parms)) return false;
  opaque_auth* full = &record->full_credential;
  full->flavour = kAuthSystem;
  full->length = xdrs.ops->get_position(&xdrs);
  full->body = static_cast<uint8_t*>(malloc(full->length));
  if (full->body == nullptr) return false;
  memcpy(full->body, record->encoded, full->length);
  return true;
}

// Stamps the encoded parameters in `full` with the time of now. Their size stays.
bool renew_time(const opaque_auth& full) {
  XDR xdrs;
  auto length = static_cast<int32_t>(full.length);
  authsys_parms parms = {};
  __brix_xdrmem_create(&xdrs, full.body, length, xdr_op::kDecode);
  bool renewed = __brix_xdr_authunix_parms(&xdrs, &parms);
  if (renewed) {
    parms.time = time(nullptr);
    xdrs.operation = xdr_op::kEncode;
    renewed = xdrs.ops->set_position(&xdrs, 0) && __brix_xdr_authunix_parms(&xdrs, &parms);
  }
  __brix_xdr_free(xdr_filter<__brix_xdr_authunix_parms>, &parms);
  return renewed;
}

void next_verifier(AUTH* /*auth*/) {}

bool marshal(AUTH* auth, XDR* xdrs) {
  SystemRecord* record = record_of(auth);
  return xdrs->ops->put_bytes(xdrs, record->encoded, record->encoded_length);
}

bool validate(AUTH* auth, const opaque_auth* verifier) {
  if (verifier->flavour != kAuthShort) return true;
  SystemRecord* record = record_of(auth);
  opaque_auth* given = &record->short_credential;
  free(given->body);
  *given = __brix_null_auth;
  XDR xdrs;
  __brix_xdrmem_create(&xdrs, verifier->body, static_cast<int32_t>(verifier->length),
                       xdr_op::kDecode);
  const bool decoded = __brix_xdr_opaque_auth(&xdrs, given);
  auth->credential = decoded ? *given : record->full_credential;
  return encode_fields(auth);
}

bool refresh(AUTH* auth) {
  if (uses_full_credential(auth)) return false;
  SystemRecord* record = record_of(auth);
  if (!renew_time(record->full_credential)) return false;
  auth->credential = record->full_credential;
  return encode_fields(auth);
}

bool needs_refresh(AUTH* /*auth*/, bool /*confirmed*/, CLIENT* /*client*/) { return false; }

void destroy(AUTH* auth) {
  SystemRecord* record = record_of(auth);
  free(record->full_credential.body);
  free(record->short_credential.body);
  free(record);
  free(auth->verifier.body);
  free(auth);
}

bool control(AUTH* /*auth*/, uint32_t request, void* information) {
  if (request != kAuthGetMethod || information == nullptr) return false;
  *static_cast<int32_t*>(information) = kAuthMethodSystem;
  return true;
}

constexpr auth_ops kSystemOps = {next_verifier, marshal, validate, refresh,
                                 needs_refresh, destroy, control};

struct Destroyer {
  void operator()(AUTH* auth) const { destroy(auth); }
};

// A handle without a credential; null without memory.
std::unique_ptr<AUTH, Destroyer> new_handle() {
  c_unique_ptr<AUTH> handle(c_new<AUTH>());
  c_unique_ptr<SystemRecord> record(c_new<SystemRecord>());
  if (handle == nullptr || record == nullptr) return nullptr;
  record->short_credential = __brix_null_auth;
  *handle = {__brix_null_auth, __brix_null_auth, {}, &kSystemOps, record.release()};
  return std::unique_ptr<AUTH, Destroyer>(handle.release());
}

}  // namespace

bool __brix_xdr_authunix_parms(XDR* xdrs, authsys_parms* parms) {
  return __brix_xdr_time_t(xdrs, &parms->time) &&
         __brix_xdr_string(xdrs, &parms->machine_name, kMaxMachineName) &&
         __brix_xdr_int(xdrs, &parms->uid) && __brix_xdr_int(xdrs, &parms->gid) &&
         __brix_xdr_array(xdrs, reinterpret_cast<void**>(&parms->groups), &parms->group_count,
                          kMaxSystemGroups, sizeof(uint32_t), xdr_filter<__brix_xdr_u_int>);
}

AUTH* __brix_authsys_create(const char* machine_name, uid_t uid, gid_t gid, uint32_t group_count,
                            const gid_t* groups) {
  std::unique_ptr<AUTH, Destroyer> auth = new_handle();
  if (auth == nullptr) return nullptr;
  SystemRecord* record = record_of(auth.get());
  // Encoding changes neither the name nor the groups.
  authsys_parms parms = {time(nullptr),
                         const_cast<char*>(machine_name),
                         static_cast<int32_t>(uid),
                         static_cast<int32_t>(gid),
                         group_count,
                         const_cast<gid_t*>(groups)};
  if (!make_full_credential(record, &parms)) return nullptr;
  auth->credential = record->full_credential;
  (void)encode_fields(auth.get());  // with an empty verifier it always fits
  if (Debug >= kAuthDebugLevel) {
    debugprintf("RPC Authentication: Client successfully authenticated using AUTH_UNIX\n");
  }
  return auth.release();
}

AUTH* __brix_authsys_create_default() {
  char machine_name[kMaxMachineName] = "";  // stays empty when the host has no name
  (void)vx_gethostname(machine_name, sizeof machine_name);
  // The ids of the user who started a set-user-id program, not those it was lent.
  uid_t uid = 0;
  gid_t gid = 0;
  get_saved_uids(&uid, nullptr);
  get_saved_gids(&gid, nullptr);
  gid_t groups[kMaxSystemGroups];
  const int count = std::max(getgroups(kMaxSystemGroups - 1, groups), 0);
  groups[count] = getegid();
  return __brix_authsys_create(machine_name, uid, gid, static_cast<uint32_t>(count) + 1, groups);
}

// The authentication flavour system (RFC 5531, appendix A): the caller's machine,
// user and groups, or a short credential that the server gave in their place.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>

#include "rpc/auth/auth.h"
#include "rpc/xdr/xdr.h"

constexpr uint32_t kMaxMachineName = 255;  //!< bytes, without the terminator
constexpr uint32_t kMaxSystemGroups = 17;  //!< RFC 5531 has 16

/// The body of a system credential, in wire order.
struct authsys_parms {
  time_t time;  //!< seconds; 32 bits on the wire
  char* machine_name;
  int32_t uid;
  int32_t gid;
  uint32_t group_count;
  uint32_t* groups;
};

/// The filter of the parameters. xdr.h says what filters promise.
bool __brix_xdr_authunix_parms(XDR* xdrs, authsys_parms* parms);

/// A new handle of this flavour, stamped with the current time. Null when the
/// parameters do not encode (a longer machine name, more groups) and, with ENOMEM in
/// errno, when there is no memory. Release it with its destroy.
///
/// Its marshal puts the credential as it was encoded last. A reply whose verifier
/// is of flavour short gives a short credential that is used from then on; one that
/// does not decode is dropped, and the full credential used again. Refresh uses
/// the full credential again, with the current time; false when it was in use already.
[[nodiscard]] AUTH* __brix_authsys_create(const char* machine_name, uid_t uid, gid_t gid,
                                          uint32_t group_count, const gid_t* groups);

/// __brix_authsys_create for this process: its host's name, its real ids as they were
/// at start-up, and its groups: up to 16 supplementary ones (none when it has more), then
/// the effective one.
[[nodiscard]] AUTH* __brix_authsys_create_default();

#include "rpc/auth/auth_methods.h"

#include "liblocal/base/vx_mutex.h"
#include "liblocal/messages/debug.h"
#include "rpc/handle/clnt.h"
#include "rpc/handle/rpcvarp.h"

namespace {

rpc_auth_methods_lookup table = nullptr;  // under the process lock

// The process lock; null, which locks nothing, once the process block has gone at exit.
vx_mutex* process_lock() {
  rpc_p_varp* process = get_rpc_p_varp();
  return process != nullptr ? process->lock : nullptr;
}

}  // namespace

void rpc_install_auth_methods(rpc_auth_methods_lookup lookup) {
  VxMutexLock lock(process_lock());
  table = lookup;
}

uint32_t rpc_allowed_auth_methods(const sockaddr_in* server) {
  const char* reason = nullptr;
  {
    VxMutexLock lock(process_lock());
    uint32_t methods = 0;
    if (table != nullptr && table(server, &methods)) return methods;
    reason = table != nullptr ? "Error on getting auth methods" : "Auth methods not set";
  }
  dfprintf(1, "%s, using default\n", reason);
  return kAuthMethodsDefault;
}

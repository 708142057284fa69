#include "rpc/transport/c_transport.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>

#include "liblocal/base/vx_select.h"
#include "liblocal/hosts/localhost.h"
#include "liblocal/messages/catgets.h"
#include "liblocal/messages/print.h"
#include "rpc/auth/auth.h"
#include "rpc/auth/auth_choice.h"
#include "rpc/handle/rpcvarp.h"
#include "rpc/messages/rpc_prot.h"
#include "rpc/portmap/p_getprt.h"
#include "rpc/transport/brsvport.h"
#include "rpc/transport/common.h"

namespace {

bool bind_to_connection_port(int descriptor) {
  if (__brix_bindresvport(descriptor, nullptr, kPortConnection) == 0) return true;
  rpc_set_createerr(RPC_SYSTEMERROR, errno);
  char host[256];
  printerr(vxcatgets(Catd, kRpcMessageSet, 164,
                     "Cannot bind socket to connection port in configured port range on system "
                     "%s.\n"),
           vx_getlocalhost(host, sizeof host));
  return false;
}

}  // namespace

bool rpc_find_port(sockaddr_in* server, unsigned long program, unsigned long version,
                   unsigned long protocol) {
  if (server->sin_port != 0) return true;
  server->sin_port = htons(__brix_pmap_getport(server, program, version, protocol));
  return server->sin_port != 0;
}

int rpc_open_client_socket(int type, int protocol) {
  int descriptor = socket(AF_INET, type | SOCK_CLOEXEC, protocol);
  if (descriptor == -1) {
    rpc_set_createerr(RPC_SYSTEMERROR, errno);
    return -1;
  }
  // Over UDP a socket is bound even if it is then refused as one that cannot be waited on.
  const bool usable = protocol == IPPROTO_UDP
                          ? bind_to_connection_port(descriptor) && rpc_can_wait_on(descriptor)
                          : rpc_can_wait_on(descriptor) && bind_to_connection_port(descriptor);
  if (usable) return descriptor;
  rpc_close(descriptor);
  return -1;
}

bool rpc_can_wait_on(int descriptor) {
  if (descriptor < kVxFdSetSize) return true;
  errno = EMFILE;
  rpc_set_createerr(RPC_SYSTEMERROR, EMFILE);
  return false;
}

void rpc_put_call_header(XDR* xdrs, unsigned long program, unsigned long version) {
  timeval now{};
  gettimeofday(&now, nullptr);
  rpc_call_message call{};
  call.transaction = static_cast<unsigned long>(getpid() ^ now.tv_sec ^ now.tv_usec);
  call.program = program;
  call.version = version;
  __brix_xdr_callhdr(xdrs, &call);
}

bool rpc_try_again(CLIENT* client, const rpc_err& error, bool confirmed, int32_t* refreshes) {
  // The first word of any detail counts, whatever the status; of a refused
  // authentication it says that the server rejected the credential.
  if (error.first_word == kAuthRejectedCredential && !confirmed && authfallback(client)) {
    return true;
  }
  // A fallback that found nothing weaker may have left the client without any.
  if (client->auth == nullptr || *refreshes == 0) return false;
  --*refreshes;
  return client->auth->ops->refresh(client->auth);
}

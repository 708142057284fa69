#include "rpc/transport/c_transport.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>

#include "liblocal/base/vx_select.h"
#include "liblocal/hosts/localhost.h"
#include "liblocal/messages/catgets.h"
#include "liblocal/messages/print.h"
#include "rpc/auth/a_none.h"
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

// The first word of the error's detail, whatever the status.
long first_word(const rpc_err& error) {
  switch (error.status) {
    case RPC_VERSMISMATCH:
    case RPC_PROGVERSMISMATCH:
      return static_cast<long>(error.versions.low);
    case RPC_FAILED:
      return error.other.s1;
    default:
      return error.why;
  }
}

}  // namespace

CLIENT* rpc_complete_client(ClientRecord* record, const clnt_ops* ops) {
  record->handle = {__brix_authnone_create(), ops, record};
  return &record->handle;
}

CLIENT* rpc_out_of_memory() {
  errno = ENOMEM;
  rpc_set_createerr(RPC_SYSTEMERROR, ENOMEM);
  return nullptr;
}

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

clnt_stat rpc_finish(ClientRecord* record, clnt_stat status, int32_t detail) {
  record->error = {};
  record->error.status = status;
  record->error.error_number = detail;
  return status;
}

bool rpc_has_auth(CLIENT* client) {
  ClientRecord* record = rpc_record_of(client);
  AUTH* auth = client->auth;
  if (auth == nullptr) {
    rpc_finish(record, RPC_AUTHERROR, kAuthFailed);
    return false;
  }
  return !auth->ops->needs_refresh(auth, record->confirmed, client) || auth->ops->refresh(auth);
}

bool rpc_is_accepted(CLIENT* client, const rpc_reply_message& reply) {
  ClientRecord* record = rpc_record_of(client);
  __brix_seterr_reply(&reply, &record->error);
  if (record->error.status != RPC_SUCCESS) return false;
  if (!client->auth->ops->validate(client->auth, &reply.accepted.verifier)) {
    rpc_finish(record, RPC_AUTHERROR, kAuthInvalidServerVerifier);
  }
  record->confirmed = true;
  return true;
}

bool rpc_try_again(CLIENT* client, int32_t* refreshes) {
  const ClientRecord* record = rpc_record_of(client);
  // Of a refused authentication it says that the server rejected the credential. The same
  // number counts for every other status, too.
  const bool rejected = first_word(record->error) == kAuthRejectedCredential;
  if (rejected && !record->confirmed && authfallback(client)) return true;
  // A fallback that found nothing weaker may have left the client without any.
  if (client->auth == nullptr || *refreshes == 0) return false;
  --*refreshes;
  return client->auth->ops->refresh(client->auth);
}

void rpc_abort(CLIENT* /*client*/) {}

void rpc_geterr(CLIENT* client, rpc_err* error) { *error = rpc_record_of(client)->error; }

bool rpc_freeres(CLIENT* client, xdrproc_t results_filter, void* results) {
  XDR* xdrs = &rpc_record_of(client)->stream;
  xdrs->operation = xdr_op::kFree;
  return results_filter == nullptr || results_filter(xdrs, results);
}

bool rpc_control(ClientRecord* record, uint32_t request, void* information) {
  switch (request) {
    case CLGET_SERVER_ADDR:
      return rpc_give(information, record->server);
    case CLGET_FD:
      return rpc_give(information, record->socket);
    case CLSET_FD_CLOSE:
    case CLSET_FD_NCLOSE:
      record->close_socket = request == CLSET_FD_CLOSE;
      return true;
    case CLSET_AUTH_CONFIRMED:
      record->confirmed = information != nullptr;
      return true;
    case CLGET_AUTH_CONFIRMED:
      return rpc_give<int32_t>(information, record->confirmed ? 1 : 0);
    default:
      return false;
  }
}

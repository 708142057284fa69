#include "rpc/c_gen.h"

#include <netdb.h>

#include <cerrno>
#include <cstring>

#include "liblocal/hosts/get_myad.h"
#include "liblocal/hosts/is_mynam.h"
#include "liblocal/hosts/mtsfuncs.h"
#include "liblocal/messages/debug.h"
#include "liblocal/startup/vxenv.h"
#include "liblocal/text/ascii.h"
#include "rpc/auth/auth_choice.h"
#include "rpc/handle/rpcvarp.h"
#include "rpc/transport/c_tcp.h"
#include "rpc/transport/c_udp.h"

namespace {

constexpr timeval kUdpRetry = {5, 0};

// A transport by name.
struct Transport {
  const char* name;
  const timeval* retry;  // null: a connection
  timeval total;         // of a call
};

constexpr Transport kTransports[] = {
    {"tcp", nullptr, {30, 0}}, {"pipe", nullptr, {30, 0}},   {"shm", nullptr, {30, 0}},
    {"spp", nullptr, {30, 0}}, {"udp", &kUdpRetry, {25, 0}},
};

// Null with the creation error set.
const Transport* find_transport(const char* name) {
  for (const Transport& transport : kTransports) {
    if (same_ignoring_case(name, transport.name)) return &transport;
  }
  rpc_set_createerr(RPC_SYSTEMERROR, EPFNOSUPPORT);
  return nullptr;
}

const char* choose_transport_name(const char* name) {
  if (name != nullptr && *name != '\0') return name;
  const char* from_environment = vxgetenv("KIV_TRANSPORT");
  return from_environment != nullptr ? from_environment : "tcp";
}

// Where to find `host`, without a port. False with the creation error set.
bool resolve(const char* host, sockaddr_in* server) {
  *server = {};
  server->sin_family = AF_INET;
  server->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (host == nullptr || *host == '\0' || is_myname(host) != 0) return true;
  const hostent* known = vx_ts_gethostbyname(host);
  if (known == nullptr || known->h_addr_list[0] == nullptr) {
    rpc_set_createerr(RPC_UNKNOWNHOST, 0);
    return false;
  }
  if (known->h_addrtype != AF_INET) {
    rpc_set_createerr(RPC_SYSTEMERROR, EAFNOSUPPORT);
    return false;
  }
  in_addr address;
  memcpy(&address, known->h_addr_list[0], sizeof address);
  if (is_myaddr(AF_INET, &address, sizeof address) == 0) server->sin_addr = address;
  return true;
}

}  // namespace

CLIENT* __brix_clnt_create(const char* host, unsigned long program, unsigned long version,
                           const char* transport) {
  return clnt_buf_create(host, program, version, transport, 0, 0);
}

CLIENT* clnt_buf_create(const char* host, unsigned long program, unsigned long version,
                        const char* transport, uint32_t send_size, uint32_t receive_size) {
  const char* name = choose_transport_name(transport);
  if (*name == '\0') return nullptr;
  sockaddr_in server;
  if (!resolve(host, &server)) return nullptr;
  const Transport* chosen = find_transport(name);
  if (chosen == nullptr) return nullptr;
  int socket = -1;
  CLIENT* client =
      clntgen_create(&server, program, version, chosen->retry, &socket, send_size, receive_size);
  if (client == nullptr) return nullptr;
  timeval total = chosen->total;
  client->ops->control(client, CLSET_TIMEOUT, &total);
  return client;
}

CLIENT* clntgen_create(sockaddr_in* server, unsigned long program, unsigned long version,
                       const timeval* retry, int* socket, uint32_t send_size,
                       uint32_t receive_size) {
  if (server->sin_family != AF_INET) return nullptr;
  memset(server->sin_zero, 0, sizeof server->sin_zero);
  if (retry != nullptr) {
    dfprintf(3, "Calling clntudp_create function\n");
    return __brix_clntudp_create(server, program, version, *retry, socket);
  }
  dfprintf(3, "Calling clnttcp_create function\n");
  return __brix_clnttcp_create(server, program, version, socket, send_size, receive_size);
}

CLIENT* clnt_create_with_auth(const char* host, unsigned long program, unsigned long version,
                              const char* transport, uint32_t allowed) {
  CLIENT* client = __brix_clnt_create(host, program, version, transport);
  if (client == nullptr) return nullptr;
  uint32_t known = 0;
  if (client->ops->control(client, CLGET_AUTH_METHODS, &known)) allowed &= known;
  client->ops->control(client, CLSET_AUTH_METHODS, &allowed);
  client->auth = auth_create_default();
  return client;
}

#include "rpc/portmap/p_getprt.h"

#include <atomic>

#include "liblocal/hosts/get_myad.h"
#include "rpc/handle/clnt.h"
#include "rpc/handle/rpcvarp.h"
#include "rpc/portmap/pmap.h"
#include "rpc/portmap/pmap_cache.h"

// Makes the client that asks (c_gen.h). It lies above this folder: new clients ask port
// mappers, which are asked through clients.
CLIENT* clntgen_create(sockaddr_in* server, unsigned long program, unsigned long version,
                       const timeval* retry, int* socket, uint32_t send_size,
                       uint32_t receive_size);

namespace {

constexpr timeval kMapperTime = {25, 0};  // of each port mapper, and between datagrams
constexpr uint32_t kMapperTcpSize = 400;  // bytes of the buffers over TCP

// Both belong to the process and guard nothing else. An address that is remembered by
// one thread and forgotten by another costs one more look at the interfaces.
std::atomic<in_addr_t> remote_address = INADDR_NONE;  // found not to be of this host
std::atomic<pmap_fallback_function> fallback = nullptr;

bool is_local(const sockaddr_in& server) {
  const in_addr_t address = server.sin_addr.s_addr;
  if (address == htonl(INADDR_LOOPBACK)) return true;
  if (address == remote_address.load(std::memory_order_relaxed)) return false;
  if (is_myaddr(AF_INET, &address, sizeof address) != 0) return true;
  remote_address.store(address, std::memory_order_relaxed);
  return false;
}

// The mapper's answer; 0 with the creation error set.
uint16_t call_mapper(CLIENT* client, pmap wanted) {
  uint16_t port = 0;
  clnt_stat status = client->ops->call(client, kPmapGetPort, xdr_filter<__brix_xdr_pmap>, &wanted,
                                       xdr_filter<__brix_xdr_u_short>, &port, kMapperTime);
  if (status != RPC_SUCCESS) {
    rpc_createerr* error = __get_rpc_createerr();
    error->status = RPC_PMAPFAILURE;
    client->ops->geterr(client, &error->cause);
    return 0;
  }
  if (port == 0) rpc_set_createerr(RPC_PROGNOTREGISTERED, 0);
  return port;
}

uint16_t ask_mapper(sockaddr_in* server, const pmap& wanted, uint16_t mapper_port) {
  uint16_t port = 0;
  int socket = -1;
  const timeval* retry = wanted.protocol == IPPROTO_UDP ? &kMapperTime : nullptr;
  server->sin_port = htons(mapper_port);
  // The sizes count over TCP alone.
  CLIENT* client = clntgen_create(server, kPmapProgram, kPmapVersion, retry, &socket,
                                  kMapperTcpSize, kMapperTcpSize);
  if (client != nullptr) {
    port = call_mapper(client, wanted);
    client->ops->destroy(client);
  }
  server->sin_port = 0;
  return port;
}

}  // namespace

uint16_t __brix_pmap_getport(sockaddr_in* server, unsigned long program, unsigned long version,
                             unsigned long protocol) {
  server->sin_port = 0;
  const unsigned long cached = pmap_cached_port(program, version, protocol);
  if (cached != 0 && is_local(*server)) return static_cast<uint16_t>(cached);

  const pmap wanted = {program, version, protocol, 0};
  uint16_t port = ask_mapper(server, wanted, kOwnMapperPort);
  if (port != 0) {
    if (pmap_is_cacheable(program, protocol) && is_local(*server)) {
      populate_pmaps(program, version, protocol, port, 0);
    }
    return port;
  }
  port = ask_mapper(server, wanted, kStandardMapperPort);
  pmap_fallback_function last_resort = fallback.load(std::memory_order_relaxed);
  if (port == 0 && last_resort != nullptr) port = last_resort(program, version, protocol);
  return port;
}

void pmap_fallback(pmap_fallback_function function) {
  fallback.store(function, std::memory_order_relaxed);
}

// RPC over UDP, beside the same exchanges by bare system calls.
#include <cstring>

#include "bench/groups.h"
#include "bench/peer.h"
#include "rpc/c_gen.h"
#include "rpc/handle/rpcvarp.h"
#include "rpc/portmap/pmap.h"
#include "rpc/xdr/xdr_object.h"

namespace {

constexpr timeval kRetry = {5, 0};
constexpr timeval kLimit = {25, 0};
constexpr uint8_t kCall[56] = {0, 0, 0,    0,    0, 0, 0, 0, 0, 0, 0, 2,
                               0, 1, 0x86, 0xA0, 0, 0, 0, 2, 0, 0, 0, 3};
constexpr size_t kReplySize = 28;

// The answer of a port mapper that knows every program.
size_t answer(uint8_t* message, size_t /*size*/) {
  memset(message + 4, 0, kReplySize - 4);
  message[7] = 1;
  message[kReplySize - 1] = 9;
  return kReplySize;
}

CLIENT* make_client(uint16_t port) {
  sockaddr_in server = loopback(port);
  int socket = -1;
  CLIENT* client = clntgen_create(&server, kPmapProgram, kPmapVersion, &kRetry, &socket, 0, 0);
  require(client != nullptr);
  return client;
}

int any_socket() {
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in any{};
  any.sin_family = AF_INET;
  require(bind(fd, reinterpret_cast<sockaddr*>(&any), sizeof any) == 0);
  return fd;
}

}  // namespace

void measure_rpc() {
  sockaddr_in mapper;
  start_answerer(bound_socket(SOCK_DGRAM, kOwnMapperPort, &mapper), answer);

  CLIENT* client = make_client(kOwnMapperPort);
  int bare = any_socket();
  compare(
      "RPC call over UDP", 1.15,
      [&] {
        pmap wanted = {100122, 0, IPPROTO_UDP, 0};
        uint16_t port = 0;
        require(client->ops->call(client, kPmapGetPort, xdr_filter<__brix_xdr_pmap>, &wanted,
                                  xdr_filter<__brix_xdr_u_short>, &port, kLimit) == RPC_SUCCESS);
      },
      [&] { require(exchange(bare, mapper, kCall, sizeof kCall) == kReplySize); });
  client->ops->destroy(client);
  close(bare);

  // The floor: a socket that asks the mapper, and one for the client.
  compare(
      "creation of a client with a port mapper", 1.15,
      [] {
        CLIENT* created = make_client(0);
        created->ops->destroy(created);
      },
      [&] {
        int asking = any_socket();
        require(exchange(asking, mapper, kCall, sizeof kCall) == kReplySize);
        close(asking);
        close(any_socket());
      });
}

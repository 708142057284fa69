// RPC over UDP and TCP and its record streams, beside the same bytes by bare system calls.
#include <netinet/tcp.h>

#include <cstring>

#include "bench/peer.h"
#include "rpc/c_gen.h"
#include "rpc/handle/rpcvarp.h"
#include "rpc/portmap/pmap.h"
#include "rpc/transport/c_tcp.h"
#include "rpc/xdr/x_rec.h"
#include "rpc/xdr/xdr_object.h"

namespace {

constexpr timeval kRetry = {5, 0};
constexpr timeval kLimit = {25, 0};
constexpr uint8_t kCall[56] = {0, 0, 0,    0,    0, 0, 0, 0, 0, 0, 0, 2,
                               0, 1, 0x86, 0xA0, 0, 0, 0, 2, 0, 0, 0, 3};
constexpr size_t kReplySize = 28;
constexpr size_t kCallRecordSize = 44;  // of a null call, with its header
constexpr size_t kMuch = 64 << 20;
constexpr size_t kFragment = 8 << 20;
constexpr uint32_t kLastFragment = 0x80000000;

char much[kMuch];

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

void measure_udp() {
  sockaddr_in mapper;
  start_answerer(bound_socket(SOCK_DGRAM, kOwnMapperPort, &mapper), answer);
  CLIENT* client = make_client(kOwnMapperPort);
  const int bare = bound_socket(SOCK_DGRAM, 0);
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
        const int asking = bound_socket(SOCK_DGRAM, 0);
        require(exchange(asking, mapper, kCall, sizeof kCall) == kReplySize);
        close(asking);
        close(bound_socket(SOCK_DGRAM, 0));
      });
}

bool read_all(int fd, void* bytes, size_t count) {
  for (auto* to = static_cast<char*>(bytes); count > 0;) {
    const ssize_t got = read(fd, to, count);
    if (got <= 0) return false;
    to += got;
    count -= static_cast<size_t>(got);
  }
  return true;
}

bool write_all(int fd, const void* bytes, size_t count) {
  return write(fd, bytes, count) == static_cast<ssize_t>(count);
}

bool read_record(int fd) {
  for (uint32_t header = 0; (header & kLastFragment) == 0;) {
    if (!read_all(fd, &header, sizeof header)) return false;
    header = ntohl(header);
    if (!read_all(fd, much, header & ~kLastFragment)) return false;
  }
  return true;
}

bool write_record(int fd) {
  for (size_t left = kMuch; left > 0; left -= kFragment) {
    const uint32_t header = htonl(kFragment | (left == kFragment ? kLastFragment : 0));
    if (!write_all(fd, &header, sizeof header)) return false;
    if (!write_all(fd, much, kFragment)) return false;
  }
  return true;
}

// What a peer does over and over: answer a call, acknowledge a record, send one when asked.
bool answer_call(int fd) {
  char call[kCallRecordSize];
  char reply[kReplySize] = {'\x80', 0, 0, kReplySize - 4};
  if (!read_all(fd, call, sizeof call)) return false;
  memcpy(reply + 4, call + 4, 4);
  reply[11] = 1;
  return write_all(fd, reply, sizeof reply);
}

bool take_record(int fd) { return read_record(fd) && write_all(fd, "", 1); }

bool give_record(int fd) {
  char byte = 0;
  return read_all(fd, &byte, 1) && write_record(fd);
}

// A connection to a peer of its own that repeats `serve`. Stores the peer's address.
int connect_peer(bool (*serve)(int fd), sockaddr_in* address) {
  const int on = 1;
  const int listener = bound_socket(SOCK_STREAM, 0, address);
  setsockopt(listener, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // for what it accepts, too
  require(listen(listener, 1) == 0);
  start_peer([=] {
    const int accepted = accept(listener, nullptr, nullptr);
    while (serve(accepted)) {
    }
    _exit(0);
  });
  close(listener);
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  require(connect(fd, reinterpret_cast<sockaddr*>(address), sizeof *address) == 0);
  return fd;
}

// A client over such a connection, and a bare connection of the same kind.
struct Connections {
  sockaddr_in address;
  int bare, fd;
  CLIENT* client;
  XDR* xdrs;

  explicit Connections(bool (*serve)(int fd))
      : bare(connect_peer(serve, &address)), fd(connect_peer(serve, &address)) {
    client = __brix_clnttcp_create(&address, 1, 1, &fd, 0, 0);
    require(client != nullptr);
    timeval limit = kLimit;
    client->ops->control(client, CLSET_TIMEOUT, &limit);
    xdrs = get_xdr_from_chandle(client);
  }
};

void measure_tcp() {
  char byte = 0;
  Connections caller(answer_call);
  compare(
      "RPC call over TCP", 1.15,
      [&] {
        require(caller.client->ops->call(caller.client, 0, nullptr, nullptr, __brix_xdr_void,
                                         nullptr, kLimit) == RPC_SUCCESS);
      },
      [&] {
        char bytes[4000] = {};
        require(write_all(caller.bare, bytes, kCallRecordSize));
        while (recv(caller.bare, bytes, sizeof bytes, MSG_DONTWAIT) < 0) {
          wait_readable(caller.bare);  // as the client looks, waits and reads
        }
      });

  Connections sender(take_record);
  compare(
      "64 MiB sent through a record stream", 1.2,
      [&] {
        sender.xdrs->operation = xdr_op::kEncode;
        require(__brix_xdr_opaque(sender.xdrs, much, kMuch));
        require(__brix_xdrrec_endofrecord(sender.xdrs, true));
        wait_readable(sender.fd);  // which does not wait by itself
        require(read_all(sender.fd, &byte, 1));
      },
      [&] { require(write_record(sender.bare) && read_all(sender.bare, &byte, 1)); });

  Connections receiver(give_record);
  compare(
      "64 MiB received through a record stream", 1.2,
      [&] {
        require(write_all(receiver.fd, &byte, 1));
        receiver.xdrs->operation = xdr_op::kDecode;
        require(__brix_xdrrec_skiprecord(receiver.xdrs));
        require(__brix_xdr_opaque(receiver.xdrs, much, kMuch));
      },
      [&] { require(write_all(receiver.bare, &byte, 1) && read_record(receiver.bare)); });
}

}  // namespace

void measure_rpc() {
  measure_udp();
  measure_tcp();
}

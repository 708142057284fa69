// RPC over TCP and its record streams, beside the same bytes by bare system calls.
#include <netinet/tcp.h>

#include <cstring>

#include "bench/groups.h"
#include "bench/peer.h"
#include "rpc/transport/c_tcp.h"
#include "rpc/xdr/x_rec.h"

namespace {

constexpr uint32_t kMuch = 64 << 20;
constexpr uint32_t kFragment = 8 << 20;
constexpr uint32_t kLastFragment = 0x80000000;
constexpr timeval kLimit = {25, 0};
constexpr size_t kCallSize = 44;   // record of a null call, with its header
constexpr size_t kReplySize = 28;  // and of its reply

char much[kMuch];

bool read_all(int fd, void* bytes, size_t count) {
  for (auto* to = static_cast<char*>(bytes); count > 0;) {
    ssize_t got = read(fd, to, count);
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
  for (uint32_t at = 0; at < kMuch; at += kFragment) {
    uint32_t header = htonl(kFragment | (at + kFragment == kMuch ? kLastFragment : 0));
    if (!write_all(fd, &header, sizeof header)) return false;
    if (!write_all(fd, much + at, kFragment)) return false;
  }
  return true;
}

// What a peer does over and over: answer a call, acknowledge a record, send one when asked.
bool answer_call(int fd) {
  char call[kCallSize];
  if (!read_all(fd, call, sizeof call)) return false;
  char reply[kReplySize] = {'\x80', 0, 0, kReplySize - 4};
  memcpy(reply + 4, call + 4, 4);
  reply[11] = 1;
  return write_all(fd, reply, sizeof reply);
}

bool take_record(int fd) { return read_record(fd) && write_all(fd, "", 1); }

bool give_record(int fd) {
  char byte = 0;
  return read_all(fd, &byte, 1) && write_record(fd);
}

void without_delay(int fd) {
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

// A connection to a peer of its own that repeats `serve`. Stores the peer's address.
int connect_peer(bool (*serve)(int fd), sockaddr_in* address) {
  int listener = bound_socket(SOCK_STREAM, 0, address);
  require(listen(listener, 1) == 0);
  start_peer([=] {
    int accepted = accept(listener, nullptr, nullptr);
    without_delay(accepted);
    while (serve(accepted)) {
    }
    _exit(0);
  });
  close(listener);
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  require(connect(fd, reinterpret_cast<sockaddr*>(address), sizeof *address) == 0);
  without_delay(fd);
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

// Receives as the client waits: it looks, selects and reads.
void receive(int fd, void* bytes, size_t size) {
  while (recv(fd, bytes, size, MSG_DONTWAIT) < 0) wait_readable(fd);
}

}  // namespace

void measure_streams() {
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
        require(write_all(caller.bare, bytes, kCallSize));
        receive(caller.bare, bytes, sizeof bytes);
      });

  Connections sender(take_record);
  compare(
      "64 MiB sent through a record stream", 1.2,
      [&] {
        sender.xdrs->operation = xdr_op::kEncode;
        require(__brix_xdr_opaque(sender.xdrs, much, kMuch));
        require(__brix_xdrrec_endofrecord(sender.xdrs, true));
        receive(sender.fd, &byte, 1);
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

// RPC over TCP and its record streams, beside the same bytes by bare system calls on the same
// connection.
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
  return recv(fd, bytes, count, MSG_WAITALL) == static_cast<ssize_t>(count);
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

// A client over a connection to a peer that repeats `serve`. Stores the socket in `*fd`.
CLIENT* connect_client(bool (*serve)(int fd), int* fd) {
  sockaddr_in address;
  int listener = bound_socket(SOCK_STREAM, 0, &address);
  require(listen(listener, 1) == 0);
  start_peer([=] {
    int accepted = accept(listener, nullptr, nullptr);
    without_delay(accepted);
    while (serve(accepted)) {
    }
    _exit(0);
  });
  *fd = socket(AF_INET, SOCK_STREAM, 0);
  require(connect(*fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0);
  without_delay(*fd);
  CLIENT* client = __brix_clnttcp_create(&address, 1, 1, fd, 0, 0);
  require(client != nullptr);
  timeval limit = kLimit;
  client->ops->control(client, CLSET_TIMEOUT, &limit);
  return client;
}

// Receives as the client waits: it looks, selects and reads.
void receive(int fd, void* bytes, size_t size) {
  while (recv(fd, bytes, size, MSG_DONTWAIT) < 0) wait_readable(fd);
}

}  // namespace

void measure_streams() {
  int fd = -1;
  char byte = 0;
  CLIENT* caller = connect_client(answer_call, &fd);
  compare(
      "RPC call over TCP", 1.15,
      [&] {
        require(caller->ops->call(caller, 0, nullptr, nullptr, __brix_xdr_void, nullptr, kLimit) ==
                RPC_SUCCESS);
      },
      [&] {
        char bytes[4000] = {};
        require(write_all(fd, bytes, kCallSize));
        receive(fd, bytes, sizeof bytes);
      });

  XDR* xdrs = get_xdr_from_chandle(connect_client(take_record, &fd));
  compare(
      "64 MiB sent through a record stream", 1.2,
      [&] {
        xdrs->operation = xdr_op::kEncode;
        require(__brix_xdr_opaque(xdrs, much, kMuch));
        require(__brix_xdrrec_endofrecord(xdrs, true));
        receive(fd, &byte, 1);
      },
      [&] { require(write_record(fd) && read_all(fd, &byte, 1)); });

  xdrs = get_xdr_from_chandle(connect_client(give_record, &fd));
  compare(
      "64 MiB received through a record stream", 1.2,
      [&] {
        require(write_all(fd, &byte, 1));
        xdrs->operation = xdr_op::kDecode;
        require(__brix_xdrrec_skiprecord(xdrs));
        require(__brix_xdr_opaque(xdrs, much, kMuch));
      },
      [&] { require(write_all(fd, &byte, 1) && read_record(fd)); });
}

// RPC over TCP and its record streams, beside the same bytes by bare system calls.
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "bench/paths.h"
#include "rpc/transport/c_tcp.h"
#include "rpc/xdr/x_rec.h"

namespace {

constexpr uint32_t kMuch = 64 << 20;
constexpr timeval kLimit = {25, 0};
constexpr size_t kCallSize = 44;   // record of a null call, with its header
constexpr size_t kReplySize = 28;  // and of its reply

// What the peer of a connection does, by its first byte.
constexpr char kAnswerer = 'a';  // answers calls
constexpr char kSink = 'i';      // takes kMuch bytes and their headers, then acknowledges
constexpr char kSource = 'o';    // asked by a byte, sends kMuch bytes as records

sockaddr_in server{};
char much[kMuch];

void require(bool held) {
  if (held) return;
  fprintf(stderr, "tcp_bench: an exchange failed\n");
  exit(1);
}

bool read_all(int fd, void* bytes, size_t count) {
  auto* to = static_cast<char*>(bytes);
  while (count > 0) {
    ssize_t got = read(fd, to, count);
    if (got <= 0) return false;
    to += got;
    count -= static_cast<size_t>(got);
  }
  return true;
}

bool write_all(int fd, const void* bytes, size_t count) {
  const auto* from = static_cast<const char*>(bytes);
  while (count > 0) {
    ssize_t written = write(fd, from, count);
    if (written <= 0) return false;
    from += written;
    count -= static_cast<size_t>(written);
  }
  return true;
}

bool read_record(int fd) {
  for (;;) {
    uint32_t header = 0;
    if (!read_all(fd, &header, sizeof header)) return false;
    header = ntohl(header);
    if (!read_all(fd, much, header & 0x7FFFFFFF)) return false;
    if ((header & 0x80000000) != 0) return true;
  }
}

bool write_records(int fd) {
  constexpr uint32_t kFragment = 8 << 20;
  for (uint32_t at = 0; at < kMuch; at += kFragment) {
    uint32_t header = htonl(kFragment | (at + kFragment == kMuch ? 0x80000000 : 0));
    if (!write_all(fd, &header, sizeof header) || !write_all(fd, much + at, kFragment))
      return false;
  }
  return true;
}

bool answer(int fd) {
  char call[kCallSize];
  if (!read_all(fd, call, sizeof call)) return false;
  char reply[kReplySize] = {'\x80', 0, 0, kReplySize - 4};
  memcpy(reply + 4, call + 4, 4);
  reply[11] = 1;
  return write_all(fd, reply, sizeof reply);
}

void serve(int fd) {
  char kind = 0;
  if (!read_all(fd, &kind, 1)) return;
  for (bool on = true; on;) {
    char byte = 0;
    if (kind == kAnswerer) on = answer(fd);
    if (kind == kSink) on = read_record(fd) && write_all(fd, &byte, 1);
    if (kind == kSource) on = read_all(fd, &byte, 1) && write_records(fd);
  }
}

// The peer, in a process of its own. Each connection ends before the next begins.
void start_server() {
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  server.sin_family = AF_INET;
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof server;
  auto* name = reinterpret_cast<sockaddr*>(&server);
  require(bind(listener, name, length) == 0 && listen(listener, 8) == 0 &&
          getsockname(listener, name, &length) == 0);
  if (fork() != 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (;;) {
    int fd = accept(listener, nullptr, nullptr);
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    serve(fd);
    close(fd);
  }
}

int connect_as(char kind) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  require(connect(fd, reinterpret_cast<sockaddr*>(&server), sizeof server) == 0);
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  require(write_all(fd, &kind, 1));
  return fd;
}

// A client over a connection to a peer of `kind`.
struct Client {
  explicit Client(char kind) : fd(connect_as(kind)) {
    sockaddr_in address = server;
    client = __brix_clnttcp_create(&address, 1, 1, &fd, 0, 0);
    require(client != nullptr);
    timeval limit = kLimit;
    client->ops->control(client, CLSET_TIMEOUT, &limit);
  }
  ~Client() {
    client->ops->destroy(client);
    close(fd);
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  int fd;
  CLIENT* client;
};

void tcp_call(benchmark::State& state) {
  Client own(kAnswerer);
  for (auto _ : state) {
    require(own.client->ops->call(own.client, 0, nullptr, nullptr, __brix_xdr_void, nullptr,
                                  kLimit) == RPC_SUCCESS);
  }
}

// Receives as the client waits: it looks, selects and reads.
void receive(int fd, void* bytes, size_t size) {
  while (recv(fd, bytes, size, MSG_DONTWAIT) < 0) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    timeval limit = kLimit;
    select(fd + 1, &readable, nullptr, nullptr, &limit);
  }
}

void tcp_call_floor(benchmark::State& state) {
  int fd = connect_as(kAnswerer);
  char bytes[4000] = {};
  for (auto _ : state) {
    require(write_all(fd, bytes, kCallSize));
    receive(fd, bytes, sizeof bytes);
  }
  close(fd);
}

void send_much(benchmark::State& state) {
  Client own(kSink);
  XDR* xdrs = get_xdr_from_chandle(own.client);
  for (auto _ : state) {
    char done = 0;
    xdrs->operation = xdr_op::kEncode;
    require(__brix_xdr_opaque(xdrs, much, kMuch) && __brix_xdrrec_endofrecord(xdrs, true));
    receive(own.fd, &done, 1);
  }
}

void send_much_floor(benchmark::State& state) {
  int fd = connect_as(kSink);
  for (auto _ : state) {
    char done = 0;
    require(write_records(fd) && read_all(fd, &done, 1));
  }
  close(fd);
}

void receive_much(benchmark::State& state) {
  Client own(kSource);
  XDR* xdrs = get_xdr_from_chandle(own.client);
  for (auto _ : state) {
    char go = 0;
    require(write_all(own.fd, &go, 1));
    xdrs->operation = xdr_op::kDecode;
    require(__brix_xdrrec_skiprecord(xdrs) && __brix_xdr_opaque(xdrs, much, kMuch));
  }
}

void receive_much_floor(benchmark::State& state) {
  int fd = connect_as(kSource);
  for (auto _ : state) {
    char go = 0;
    require(write_all(fd, &go, 1) && read_record(fd));
  }
  close(fd);
}

constexpr Path kPaths[] = {
    {"RPC call over TCP on loopback", "tcp_call", tcp_call, tcp_call_floor, 1.15},
    {"64 MiB sent through a record stream", "send_much", send_much, send_much_floor, 1.2},
    {"64 MiB received through a record stream", "receive_much", receive_much, receive_much_floor,
     1.2},
};

}  // namespace

int main(int argc, char** argv) {
  start_server();
  return measure(argc, argv, kPaths);
}

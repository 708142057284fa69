// The other end of what is sent, on loopback.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

#include "bench/compare.h"

inline sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

/// A socket of `type` bound to `port` of 127.0.0.1; 0: any. Stores the address in `*stored`.
inline int bound_socket(int type, uint16_t port, sockaddr_in* stored = nullptr) {
  int fd = socket(AF_INET, type, 0);
  sockaddr_in own = loopback(port);
  socklen_t size = sizeof own;
  require(bind(fd, reinterpret_cast<sockaddr*>(&own), size) == 0);
  require(getsockname(fd, reinterpret_cast<sockaddr*>(&own), &size) == 0);
  if (stored != nullptr) *stored = own;
  return fd;
}

/// Calls `serve`, which never returns, in a process that ends with this one. Both share one
/// processor, since waking a second one takes longer than what is measured.
template <typename Serve>
void start_peer(Serve serve) {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(sched_getcpu(), &one);
  sched_setaffinity(0, sizeof one, &one);
  if (fork() != 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  serve();
}

/// Changes every datagram at `fd` into its answer, whose size `answer` returns.
inline void start_answerer(int fd, size_t (*answer)(uint8_t* message, size_t size)) {
  start_peer([=] {
    for (;;) {
      uint8_t message[1500];
      sockaddr_in from{};
      socklen_t size = sizeof from;
      auto* name = reinterpret_cast<sockaddr*>(&from);
      ssize_t count = recvfrom(fd, message, sizeof message, 0, name, &size);
      if (count < 0) _exit(1);
      sendto(fd, message, answer(message, static_cast<size_t>(count)), 0, name, size);
    }
  });
}

/// Waits until `fd` is readable, at most 25 seconds.
inline void wait_readable(int fd) {
  pollfd readable = {fd, POLLIN, 0};
  poll(&readable, 1, 25'000);
}

/// One request and its reply by bare system calls. Returns the size of the reply.
inline ssize_t exchange(int fd, const sockaddr_in& peer, const void* request, size_t size) {
  sendto(fd, request, size, 0, reinterpret_cast<const sockaddr*>(&peer), sizeof peer);
  wait_readable(fd);
  uint8_t reply[8800];
  sockaddr_in from{};
  socklen_t from_size = sizeof from;
  return recvfrom(fd, reply, sizeof reply, 0, reinterpret_cast<sockaddr*>(&from), &from_size);
}

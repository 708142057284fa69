#include "tests/rpc_server.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "rpc/xdr/xdr_units.h"

namespace lab {

RpcServer::RpcServer(int type, const std::string& address, uint16_t port)
    : socket_(::socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
  const sockaddr_in name = {AF_INET, htons(port), {inet_addr(address.c_str())}, {}};
  const int on = type == SOCK_STREAM ? 1 : 0;  // also the port of a server that has ended
  setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(socket_, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0 ||
      (on != 0 && listen(socket_, 8) != 0)) {
    throw std::system_error(errno, std::generic_category(), "a server's socket");
  }
}

RpcServer::RpcServer(uint16_t port, const std::string& address, Script script, int type)
    : RpcServer(type, address, port) {
  thread_ = std::jthread([this, type, run = std::move(script)] {
    if (type == SOCK_DGRAM) return answer(run);
    serve([&run](RpcServer& self) {
      while (auto request = self.read_request()) {
        for (const std::string& reply : run(*request)) self.send(fragment(reply));
      }
    });
  });
}

RpcServer::RpcServer(Conversation conversation, uint16_t port)
    : RpcServer(SOCK_STREAM, "127.0.0.1", port) {
  thread_ = std::jthread([this, run = std::move(conversation)] { serve(run); });
}

RpcServer::~RpcServer() {
  {
    std::lock_guard lock(mutex_);
    ended_ = true;
    if (connection_ != -1) shutdown(connection_, SHUT_RDWR);
  }
  shutdown(socket_, SHUT_RDWR);  // ends an accept and a receive
  thread_.join();
  close(socket_);
}

void RpcServer::answer(const Script& script) {
  char bytes[65536];
  sockaddr_storage from{};
  auto* name = reinterpret_cast<sockaddr*>(&from);
  for (;;) {
    socklen_t size = sizeof from;
    const ssize_t got = recvfrom(socket_, bytes, sizeof bytes, 0, name, &size);
    if (got <= 0) return;
    for (const std::string& reply : script(keep({bytes, static_cast<size_t>(got)}))) {
      sendto(socket_, reply.data(), reply.size(), 0, name, size);
    }
  }
}

void RpcServer::serve(const Conversation& conversation) {
  for (int next; (next = accept(socket_, nullptr, nullptr)) >= 0;) {
    const int on = 1;  // small pieces leave as they come
    setsockopt(next, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    {
      std::lock_guard lock(mutex_);
      connection_ = next;
      if (ended_) shutdown(next, SHUT_RDWR);
    }
    conversation(*this);
    std::lock_guard lock(mutex_);
    connection_ = -1;
    close(next);
  }
}

std::string RpcServer::keep(const std::string& request) {
  std::lock_guard lock(mutex_);
  return requests_.emplace_back(request);
}

std::vector<std::string> RpcServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

uint16_t RpcServer::port() const {
  sockaddr_in name{};
  socklen_t size = sizeof name;
  getsockname(socket_, reinterpret_cast<sockaddr*>(&name), &size);
  return ntohs(name.sin_port);
}

std::string RpcServer::read_bytes(size_t count) const {
  std::string bytes(count, '\0');
  if (count == 0) return bytes;
  const ssize_t got = recvfrom(connection_, bytes.data(), count, MSG_WAITALL, nullptr, nullptr);
  bytes.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
  return bytes;
}

std::optional<std::string> RpcServer::read_request() {
  std::string record;
  for (uint32_t header = 0; (header & 0x80000000) == 0;) {
    const std::string bytes = read_bytes(sizeof header);
    if (bytes.size() < sizeof header) return std::nullopt;
    header = xdr_load<uint32_t>(bytes.data());
    record += read_bytes(header & 0x7FFFFFFF);
  }
  return keep(record);
}

bool RpcServer::send(const std::string& bytes) const {
  const ssize_t sent = ::send(connection_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  return sent == static_cast<ssize_t>(bytes.size());
}

std::string fragment(const std::string& bytes, bool last) {
  const uint32_t header = htonl(static_cast<uint32_t>(bytes.size()) | (last ? 0x80000000 : 0));
  return std::string(reinterpret_cast<const char*>(&header), sizeof header) + bytes;
}

std::string reply_to(const std::string& request, const std::string& hex) {
  return request.substr(0, 4) + from_hex(hex);
}

std::string success_to(const std::string& request, const std::string& hex) {
  return reply_to(request, "00000001 00000000 00000000 00000000 00000000" + hex);
}

RpcServer::Script port_mapper(uint16_t port) {
  const std::string bytes = {0, 0, static_cast<char>(port >> 8), static_cast<char>(port)};
  return [hex = to_hex(bytes)](auto& request) { return std::vector{success_to(request, hex)}; };
}

std::vector<std::string> silence(const std::string& /*request*/) { return {}; }

}  // namespace lab

#include "tests/rpc_server.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "rpc/xdr/xdr_units.h"

namespace machine {

RpcServer::RpcServer(uint16_t port, const std::string& address, Conversation conversation, int type)
    : type_(type),
      socket_(::socket(AF_INET, type | SOCK_CLOEXEC, 0)),
      connection_(type == SOCK_DGRAM ? socket_ : -1) {
  const sockaddr_in name = {AF_INET, htons(port), {inet_addr(address.c_str())}, {}};
  const int on = type == SOCK_STREAM ? 1 : 0;  // also the port of a server that has ended
  setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(socket_, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0 ||
      (on != 0 && listen(socket_, 8) != 0)) {
    throw std::runtime_error("a server's socket");
  }
  thread_ = std::jthread(
      [this, run = std::move(conversation)] { type_ == SOCK_DGRAM ? run(*this) : serve(run); });
}

RpcServer::~RpcServer() {
  {
    std::lock_guard lock(mutex_);
    ended_ = true;
    if (connection_ != -1) shutdown(connection_, SHUT_RDWR);
  }
  shutdown(socket_, SHUT_RDWR);  // ends an accept
  thread_.join();
  close(socket_);
}

void RpcServer::serve(const Conversation& conversation) {
  for (int next; (next = accept(socket_, nullptr, nullptr)) >= 0;) {
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

std::vector<std::string> RpcServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::string RpcServer::read_bytes(size_t count) {
  std::string bytes(count, '\0');
  if (count == 0) return bytes;
  peer_size_ = sizeof peer_;
  const ssize_t got = recvfrom(connection_, bytes.data(), count, MSG_WAITALL,
                               reinterpret_cast<sockaddr*>(&peer_), &peer_size_);
  bytes.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
  return bytes;
}

std::string RpcServer::read_request() {
  std::string request;
  if (type_ == SOCK_DGRAM) {
    request = read_bytes(65536);
  } else {
    for (uint32_t header = 0; (header & 0x80000000) == 0;) {
      const std::string bytes = read_bytes(sizeof header);
      if (bytes.size() < sizeof header) return "";
      header = xdr_load<uint32_t>(bytes.data());
      EXPECT_LE(header & 0x7FFFFFFF, 16U << 20);
      request += read_bytes(header & 0x7FFFFFFF);
    }
  }
  std::lock_guard lock(mutex_);
  if (!request.empty()) requests_.push_back(request);
  return request;
}

bool RpcServer::send(const std::string& bytes) const {
  const ssize_t sent = sendto(connection_, bytes.data(), bytes.size(), MSG_NOSIGNAL,
                              reinterpret_cast<const sockaddr*>(&peer_), peer_size_);
  return sent == static_cast<ssize_t>(bytes.size());
}

bool RpcServer::answer(const std::string& body) {
  const std::string request = read_request();
  if (request.empty()) return false;
  const std::string bytes = reply(request, body);
  return send(type_ == SOCK_DGRAM ? bytes : fragment(bytes));
}

std::string fragment(const std::string& bytes, bool last) {
  const uint32_t header = htonl(static_cast<uint32_t>(bytes.size()) | (last ? 0x80000000 : 0));
  return std::string(reinterpret_cast<const char*>(&header), sizeof header) + bytes;
}

std::string reply(const std::string& request, const std::string& body) {
  return request.substr(0, 4) + from_hex(body);
}

RpcServer::Conversation always(const std::string& body) {
  return [body](RpcServer& server) {
    while (server.answer(body)) {
    }
  };
}

RpcServer::Conversation port_mapper(uint16_t port) {
  const std::string bytes = {static_cast<char>(port >> 8), static_cast<char>(port)};
  return always(kAccepted + "0000" + to_hex(bytes));
}

}  // namespace machine

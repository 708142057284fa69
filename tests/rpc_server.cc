#include "tests/rpc_server.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace lab {

RpcServer::RpcServer(int type, const std::string& address, uint16_t port)
    : listener_(::socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
  const int on = type == SOCK_STREAM ? 1 : 0;  // also the port of a server that has ended
  setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in own = {AF_INET, htons(port), {inet_addr(address.c_str())}, {}};
  socklen_t length = sizeof own;
  auto* name = reinterpret_cast<sockaddr*>(&own);
  if (bind(listener_, name, length) != 0 || (on != 0 && listen(listener_, 8) != 0) ||
      getsockname(listener_, name, &length) != 0) {
    throw std::system_error(errno, std::generic_category(), "a server's socket");
  }
  port_ = ntohs(own.sin_port);
}

RpcServer::RpcServer(uint16_t port, const std::string& address, Script script)
    : RpcServer(SOCK_DGRAM, address, port) {
  thread_ = std::jthread([this, run = std::move(script)] {
    sockaddr_in from{};
    char bytes[65536];
    for (;;) {
      socklen_t size = sizeof from;
      auto* name = reinterpret_cast<sockaddr*>(&from);
      const ssize_t got = recvfrom(listener_, bytes, sizeof bytes, 0, name, &size);
      if (got <= 0) return;
      const std::string request(bytes, static_cast<size_t>(got));
      {
        std::lock_guard lock(mutex_);
        requests_.push_back(request);
      }
      for (const std::string& answer : run(request)) {
        sendto(listener_, answer.data(), answer.size(), 0, name, size);
      }
    }
  });
}

RpcServer::RpcServer(Conversation conversation, uint16_t port)
    : RpcServer(SOCK_STREAM, "127.0.0.1", port) {
  thread_ = std::jthread([this, run = std::move(conversation)] { accept_all(run); });
}

RpcServer::~RpcServer() {
  {
    std::lock_guard lock(mutex_);
    ended_ = true;
    if (serving_ != -1) shutdown(serving_, SHUT_RDWR);
  }
  shutdown(listener_, SHUT_RDWR);  // ends an accept and a receive
  thread_.join();
  close(listener_);
}

void RpcServer::accept_all(const Conversation& conversation) {
  for (;;) {
    const int socket = accept(listener_, nullptr, nullptr);
    if (socket < 0) return;
    const int on = 1;  // small pieces leave as they come
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    {
      std::lock_guard lock(mutex_);
      serving_ = socket;
      if (ended_) shutdown(socket, SHUT_RDWR);
    }
    conversation(*this);
    std::lock_guard lock(mutex_);
    serving_ = -1;
    close(socket);
  }
}

std::vector<std::string> RpcServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::string RpcServer::read_bytes(size_t count) const {
  std::string bytes(count, '\0');
  size_t done = 0;
  while (done < count) {
    const ssize_t got = read(serving_, bytes.data() + done, count - done);
    if (got <= 0) break;
    done += static_cast<size_t>(got);
  }
  bytes.resize(done);
  return bytes;
}

std::optional<std::string> RpcServer::read_request() {
  std::string record;
  for (uint32_t header = 0; (header & 0x80000000) == 0;) {
    const std::string bytes = read_bytes(4);
    if (bytes.size() < 4) return std::nullopt;
    bytes.copy(reinterpret_cast<char*>(&header), sizeof header);
    header = ntohl(header);
    record += read_bytes(header & 0x7FFFFFFF);
  }
  std::lock_guard lock(mutex_);
  requests_.push_back(record);
  return record;
}

bool RpcServer::send(const std::string& bytes) const {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t sent = ::send(serving_, &bytes[done], bytes.size() - done, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    done += static_cast<size_t>(sent);
  }
  return true;
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
  return [hex = to_hex(bytes)](const std::string& request) {
    return std::vector{success_to(request, hex)};
  };
}

std::vector<std::string> silence(const std::string& /*request*/) { return {}; }

}  // namespace lab

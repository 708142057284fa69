#include "tests/tcp_peer.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "tests/rpc_client.h"

namespace lab {
namespace {

void require(bool done, const char* what) {
  if (!done) throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

TcpConnection::~TcpConnection() { close(socket_); }

std::string TcpConnection::read_bytes(size_t count) const {
  std::string bytes(count, '\0');
  size_t done = 0;
  while (done < count) {
    ssize_t got = recv(socket_, bytes.data() + done, count - done, 0);
    if (got <= 0) break;
    done += static_cast<size_t>(got);
  }
  bytes.resize(done);
  return bytes;
}

std::optional<std::string> TcpConnection::read_record() const {
  std::string record;
  for (;;) {
    std::string header = read_bytes(4);
    if (header.size() < 4) return std::nullopt;
    uint32_t word = 0;
    header.copy(reinterpret_cast<char*>(&word), sizeof word);
    word = ntohl(word);
    record += read_bytes(word & 0x7FFFFFFF);
    if ((word & 0x80000000) != 0) return record;
  }
}

bool TcpConnection::send(const std::string& bytes) const {
  for (size_t done = 0; done < bytes.size();) {
    ssize_t sent = ::send(socket_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    done += static_cast<size_t>(sent);
  }
  return true;
}

void TcpConnection::reset_at_end() const {
  const linger now = {1, 0};
  setsockopt(socket_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
}

TcpPeer::TcpPeer(Script script, uint16_t port)
    : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const int on = 1;  // the port of a peer that has ended
  setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address = loopback(port);
  socklen_t length = sizeof address;
  auto* name = reinterpret_cast<sockaddr*>(&address);
  require(bind(listener_, name, length) == 0 && listen(listener_, 8) == 0, "listen");
  require(getsockname(listener_, name, &length) == 0, "getsockname");
  port_ = ntohs(address.sin_port);
  thread_ = std::jthread([this, run = std::move(script)] { serve(run); });
}

TcpPeer::~TcpPeer() {
  {
    std::lock_guard lock(mutex_);
    ended_ = true;
    if (serving_ != -1) shutdown(serving_, SHUT_RDWR);
  }
  shutdown(listener_, SHUT_RDWR);  // ends the accept
  thread_.join();
  close(listener_);
}

void TcpPeer::serve(const Script& script) {
  for (;;) {
    int socket = accept(listener_, nullptr, nullptr);
    if (socket < 0) return;
    const int on = 1;  // small pieces leave as they come
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    TcpConnection connection(socket);
    {
      std::lock_guard lock(mutex_);
      if (ended_) return;
      serving_ = socket;
    }
    script(connection);
    std::lock_guard lock(mutex_);
    serving_ = -1;
  }
}

std::string fragment(const std::string& bytes, bool last) {
  uint32_t word = htonl(static_cast<uint32_t>(bytes.size()) | (last ? 0x80000000 : 0));
  return std::string(reinterpret_cast<const char*>(&word), sizeof word) + bytes;
}

}  // namespace lab

// A scripted TCP server for tests.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace lab {

/// The server's end of one connection.
class TcpConnection {
 public:
  explicit TcpConnection(int socket) : socket_(socket) {}
  ~TcpConnection();
  TcpConnection(const TcpConnection&) = delete;
  TcpConnection& operator=(const TcpConnection&) = delete;

  /// The next `count` bytes, fewer at the end of input.
  std::string read_bytes(size_t count) const;
  /// The next record, its fragments joined; nothing at the end of input.
  std::optional<std::string> read_record() const;
  /// Sends `bytes` as they are, waiting for all to be taken; false once the client is gone.
  bool send(const std::string& bytes) const;
  /// Makes the end of the connection a reset.
  void reset_at_end() const;
  int socket() const { return socket_; }

 private:
  int socket_;
};

/// Accepts connections on `port` (0: any) of 127.0.0.1, one after the other, and runs a script on
/// each, in a thread of its own. Its end ends the connection that it serves.
class TcpPeer {
 public:
  using Script = std::function<void(TcpConnection& connection)>;

  explicit TcpPeer(Script script, uint16_t port = 0);
  ~TcpPeer();

  uint16_t port() const { return port_; }

 private:
  void serve(const Script& script);

  int listener_;
  uint16_t port_ = 0;
  std::mutex mutex_;  // guards the next two
  int serving_ = -1;
  bool ended_ = false;
  std::jthread thread_;  // the last member: it uses the others
};

/// `bytes` as one fragment.
std::string fragment(const std::string& bytes, bool last = true);

}  // namespace lab

// Scripted servers for tests: they keep what arrives and answer what the test says.
#pragma once

#include <sys/socket.h>

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/machine.h"

namespace machine {

/// A server in a thread of its own. Its end ends what it is doing.
class RpcServer {
 public:
  /// What happens on its datagram socket or on a connection, by the operations below.
  using Conversation = std::function<void(RpcServer& server)>;

  /// On `port` (0: any) over UDP, or over TCP: one connection after the other.
  RpcServer(uint16_t port, const std::string& address, Conversation conversation,
            int type = SOCK_DGRAM);
  ~RpcServer();

  uint16_t port() const { return port_of(socket_); }
  /// The datagrams and records that were read until now.
  std::vector<std::string> requests() const;

  /// The next datagram or record, its fragments joined; nothing at the end of input.
  std::string read_request();
  /// Sends `bytes` as they are, waiting for all to be taken; false once the client is gone.
  bool send(const std::string& bytes) const;
  /// Sends the reply to the next request, over TCP as a record; false at the end.
  bool answer(const std::string& body);
  /// The connection's socket.
  int socket() const { return connection_; }

 private:
  void serve(const Conversation& conversation);
  std::string read_bytes(size_t count);

  const int type_, socket_;
  mutable std::mutex mutex_;  // guards what follows, but from the thread's own reading
  std::vector<std::string> requests_;
  bool ended_ = false;
  int connection_;  // changed by the thread alone
  sockaddr_storage peer_{};
  socklen_t peer_size_ = 0;  // over TCP it stays 0
  std::jthread thread_;      // the last member: it uses the others
};

/// `bytes` as one fragment of a record.
std::string fragment(const std::string& bytes, bool last = true);

/// What the body of an accepting reply without a verifier begins with; the results are next.
inline const std::string kAccepted = "00000001 00000000 00000000 00000000 00000000";

/// The reply to the call `request`: the id of that and `body`, in hex.
std::string reply(const std::string& request, const std::string& body);

/// Answers every request with `body`.
RpcServer::Conversation always(const std::string& body);

/// A port mapper that gives `port` for every program; 0: none is registered.
RpcServer::Conversation port_mapper(uint16_t port);

/// The two port mappers of 127.0.0.1, where no program is registered.
struct EmptyPortMappers {
  RpcServer own{7938, "127.0.0.1", port_mapper(0)};
  RpcServer standard{111, "127.0.0.1", port_mapper(0)};
};

}  // namespace machine

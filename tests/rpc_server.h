// Scripted servers for tests: they keep what arrives and answer what the test says.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/lab.h"

namespace lab {

/// A server in a thread of its own, over UDP or TCP. Its end ends what it is doing.
class RpcServer {
 public:
  /// The datagrams to answer `request` with.
  using Script = std::function<std::vector<std::string>(const std::string& request)>;
  /// What happens on a connection, by the operations below.
  using Conversation = std::function<void(RpcServer& server)>;

  /// Over UDP on `port` (0: any), or over TCP, where each answer is a record.
  RpcServer(uint16_t port, const std::string& address, Script script, int type = SOCK_DGRAM);
  /// Over TCP on `port` of 127.0.0.1: one connection after the other.
  explicit RpcServer(Conversation conversation, uint16_t port = 0);
  ~RpcServer();

  uint16_t port() const;
  /// The datagrams and records that were read until now.
  std::vector<std::string> requests() const;

  /// The next record, its fragments joined; nothing at the end of input.
  std::optional<std::string> read_request();
  /// The next `count` bytes, fewer at the end of input.
  std::string read_bytes(size_t count) const;
  /// Sends `bytes` as they are, waiting for all to be taken; false once the client is gone.
  bool send(const std::string& bytes) const;
  /// The connection's socket.
  int socket() const { return connection_; }

 private:
  RpcServer(int type, const std::string& address, uint16_t port);
  void answer(const Script& script);
  void serve(const Conversation& conversation);
  std::string keep(const std::string& request);

  const int socket_;
  mutable std::mutex mutex_;  // guards what follows, but from the thread's own reading
  std::vector<std::string> requests_;
  bool ended_ = false;
  int connection_ = -1;  // changed by the thread alone
  std::jthread thread_;  // the last member: it uses the others
};

/// `bytes` as one fragment of a record.
std::string fragment(const std::string& bytes, bool last = true);

/// The reply to `request` whose bytes behind the transaction id are `hex`.
std::string reply_to(const std::string& request, const std::string& hex);

/// Accepted with success, the none verifier, and results in `hex`.
std::string success_to(const std::string& request, const std::string& hex);

/// A port mapper that gives `port` for every program; 0: none is registered.
RpcServer::Script port_mapper(uint16_t port);

/// Never answers.
std::vector<std::string> silence(const std::string& request);

/// The two port mappers of 127.0.0.1, where no program is registered.
struct EmptyPortMappers {
  RpcServer own{7938, "127.0.0.1", port_mapper(0)};
  RpcServer standard{111, "127.0.0.1", port_mapper(0)};
};

}  // namespace lab

// Scripted servers for tests: they keep what arrives and answer what the test says.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/lab.h"

namespace lab {

/// A UDP server in a thread of its own.
class RpcServer {
 public:
  /// The datagrams to answer `request` with.
  using Script = std::function<std::vector<std::string>(const std::string& request)>;

  /// Listens on `port` (0: any) once it is made.
  RpcServer(uint16_t port, const std::string& address, Script script);

  uint16_t port() const { return receiver_.port(); }
  /// What has arrived until now.
  std::vector<std::string> requests() const;

 private:
  void serve(const std::stop_token& stop);

  UdpReceiver receiver_;
  Script script_;
  mutable std::mutex mutex_;  // guards requests_
  std::vector<std::string> requests_;
  std::jthread thread_;  // the last member: it uses the others
};

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

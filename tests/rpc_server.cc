#include "tests/rpc_server.h"

#include <netinet/in.h>
#include <sys/socket.h>

namespace lab {

RpcServer::RpcServer(uint16_t port, const std::string& address, Script script)
    : receiver_(port, address),
      script_(std::move(script)),
      thread_([this](const std::stop_token& stop) { serve(stop); }) {}

std::vector<std::string> RpcServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

void RpcServer::serve(const std::stop_token& stop) {
  while (!stop.stop_requested()) {
    sockaddr_in from{};
    auto request = receiver_.receive(20, &from);  // milliseconds
    if (!request) continue;
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(*request);
    }
    for (const std::string& answer : script_(*request)) {
      sendto(receiver_.socket(), answer.data(), answer.size(), 0,
             reinterpret_cast<const sockaddr*>(&from), sizeof from);
    }
  }
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

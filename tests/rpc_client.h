// RPC clients under test, and one procedure that is called through them.
#pragma once

#include <gtest/gtest.h>

#include <optional>

#include "rpc/handle/c_perror.h"
#include "rpc/transport/c_tcp.h"
#include "rpc/transport/c_udp.h"
#include "tests/rpc_server.h"

namespace machine {

constexpr timeval kLong = {20, 999999};  // nothing waits so long
constexpr uint16_t kNobody = 9;          // a port
enum Transport { kUdp, kTcp };

// What calls come to, and why no client is made.
const std::string kSuccess = "Success\n";
const std::string kTimedOut = "Timed out\n";
const std::string kFailed =
    " operation failed.  A network connection could not be established with the host.; errno = ";
const std::string kCannotSend = "RPC send" + kFailed;
const std::string kCannotReceive = "RPC receive" + kFailed;
const std::string kSystemError = "Remote system error - ";

inline sockaddr_in loopback(uint16_t port) {
  return {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
}

inline bool equal(timeval left, timeval right) { return timercmp(&left, &right, ==); }

/// Tests of a client, and mostly of its server.
class ClientTest : public testing::Test {
 protected:
  ClientTest() { (void)__brix_clnt_spcreateerror(nullptr); }  // makes what is kept for texts

  void TearDown() override {
    destroy();
    server_.reset();
  }

  void destroy() {
    if (client_ != nullptr) client_->ops->destroy(client_);
    client_ = nullptr;
  }

  /// Makes `client_`, of program 5 and version 6 at 127.0.0.1, in the place of the last. Returns
  /// why none was made; nothing when one was.
  std::string create(Transport transport, uint16_t port, int socket = -1, uint32_t size = 100) {
    destroy();
    sockaddr_in server = loopback(port);
    socket_ = socket;
    client_ = transport == kTcp
                  ? __brix_clnttcp_create(&server, 5, 6, &socket_, size, size)
                  : __brix_clntudp_bufcreate(&server, 5, 6, kLong, &socket_, size, size);
    return client_ != nullptr ? "" : __brix_clnt_spcreateerror(nullptr);
  }

  /// Makes `server_`, and `client_` of it.
  void serve(Transport transport, const RpcServer::Conversation& conversation,
             uint32_t size = 100) {
    TearDown();
    server_.emplace(0, "127.0.0.1", conversation, transport == kTcp ? SOCK_STREAM : SOCK_DGRAM);
    ASSERT_EQ(create(transport, server_->port(), -1, size), "");
  }

  /// Calls procedure 7 with the argument 8. Returns the text of what that came to.
  std::string call(timeval limit = kLong) {
    int32_t argument = 8;
    return call(xdr_filter<__brix_xdr_int>, &argument, xdr_filter<__brix_xdr_int>, &result_, limit);
  }

  std::string call(xdrproc_t arguments_filter, void* arguments, xdrproc_t results_filter,
                   void* results, timeval limit = kLong) {
    const clnt_stat status =
        client_->ops->call(client_, 7, arguments_filter, arguments, results_filter, results, limit);
    const std::string text = __brix_clnt_sperror(client_, nullptr);
    EXPECT_TRUE(text.starts_with(__brix_clnt_sperrno(status)));
    return text;
  }

  bool control(uint32_t request, void* information) {
    return client_->ops->control(client_, request, information);
  }

  template <typename T>
  T get(uint32_t request) {
    T value{};
    EXPECT_TRUE(control(request, &value)) << request;
    return value;
  }

  std::optional<RpcServer> server_;
  CLIENT* client_ = nullptr;
  int socket_ = -1;
  int32_t result_ = 0;
};

}  // namespace machine

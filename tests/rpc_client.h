// RPC clients under test, and one procedure that is called through them.
#pragma once

#include <gtest/gtest.h>
#include <sys/time.h>

#include <optional>

#include "rpc/handle/clnt.h"
#include "rpc/handle/rpcvarp.h"
#include "rpc/transport/c_tcp.h"
#include "rpc/transport/c_udp.h"
#include "tests/rpc_server.h"

namespace machine {

constexpr timeval kLong = {20, 0};  // nothing waits so long
constexpr uint16_t kNobody = 9;     // a port
enum Transport { kUdp, kTcp };

inline sockaddr_in loopback(uint16_t port) {
  return {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
}

inline bool equal(timeval left, timeval right) { return timercmp(&left, &right, ==); }

/// Tests of a client, and mostly of its server.
class ClientTest : public testing::Test {
 protected:
  void TearDown() override {
    destroy();
    server_.reset();
  }

  void destroy() {
    if (client_ != nullptr) client_->ops->destroy(client_);
    client_ = nullptr;
  }

  /// Makes `client_`, of program 5 and version 6 at 127.0.0.1, in the place of the last.
  CLIENT* create(Transport transport, uint16_t port, int socket = -1, uint32_t size = 100) {
    destroy();
    sockaddr_in server = loopback(port);
    socket_ = socket;
    return client_ = transport == kTcp
                         ? __brix_clnttcp_create(&server, 5, 6, &socket_, size, size)
                         : __brix_clntudp_bufcreate(&server, 5, 6, kLong, &socket_, size, size);
  }

  /// Makes `server_`, and `client_` of it.
  void serve(Transport transport, const RpcServer::Conversation& conversation,
             uint32_t size = 100) {
    TearDown();
    server_.emplace(conversation, transport == kTcp ? SOCK_STREAM : SOCK_DGRAM);
    ASSERT_NE(create(transport, server_->port(), -1, size), nullptr);
  }

  /// Calls procedure 7 with the argument 8.
  clnt_stat call(timeval limit = kLong) {
    int32_t argument = 8;
    return call_with(xdr_filter<__brix_xdr_int>, &argument, limit);
  }

  clnt_stat call_with(xdrproc_t filter, void* arguments, timeval limit = kLong) {
    return client_->ops->call(client_, 7, filter, arguments, xdr_filter<__brix_xdr_int>, &result_,
                              limit);
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

  /// A call came to `status` with `detail`, an error number or auth_state, and the client's
  /// error says the same.
  void expect(clnt_stat got, clnt_stat status, int32_t detail = 0) const {
    rpc_err error{};
    client_->ops->geterr(client_, &error);
    EXPECT_EQ(got, status);
    EXPECT_EQ(error.status, status);
    EXPECT_EQ(error.error_number, detail);
  }

  /// No client was made, and the creation error says why.
  void expect_not_created(clnt_stat status, int32_t error_number) const {
    EXPECT_EQ(client_, nullptr);
    EXPECT_EQ(__get_rpc_createerr()->status, status);
    EXPECT_EQ(__get_rpc_createerr()->cause.error_number, error_number);
  }

  std::optional<RpcServer> server_;
  CLIENT* client_ = nullptr;
  int socket_ = -1;
  int32_t result_ = 0;
};

}  // namespace machine

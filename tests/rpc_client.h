// RPC clients under test, and one procedure that is called through them.
#pragma once

#include <gtest/gtest.h>
#include <sys/time.h>

#include "rpc/handle/clnt.h"
#include "rpc/handle/rpcvarp.h"
#include "rpc/transport/c_tcp.h"
#include "rpc/transport/c_udp.h"

namespace machine {

constexpr timeval kLong = {20, 0};  // nothing waits so long
constexpr uint16_t kNobody = 9;     // a port
enum Transport { kUdp, kTcp };

inline sockaddr_in loopback(uint16_t port) {
  return {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
}

inline bool equal(timeval left, timeval right) { return timercmp(&left, &right, ==); }

/// Tests of clients.
class ClientTest : public testing::Test {
 protected:
  void TearDown() override { destroy(); }

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

  /// What a call came to and the record of it are `status` with `detail`.
  void expect(clnt_stat got, clnt_stat status, int32_t detail = 0) const {
    rpc_err error{};
    client_->ops->geterr(client_, &error);
    EXPECT_TRUE(got == status && error.status == status && error.first_word == detail)
        << got << ' ' << error.status << ' ' << error.first_word;
  }

  /// The same of the creation error, and no client was made.
  void expect_not_created(clnt_stat status, int32_t detail) const {
    const rpc_createerr& error = *__get_rpc_createerr();
    EXPECT_EQ(client_, nullptr);
    EXPECT_TRUE(error.status == status && error.cause.error_number == detail)
        << error.status << ' ' << error.cause.error_number;
  }

  CLIENT* client_ = nullptr;
  int socket_ = -1;
  int32_t result_ = 0;
};

}  // namespace machine

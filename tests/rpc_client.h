// RPC clients under test, and one procedure that is called through them.
#pragma once

#include <sys/time.h>

#include "rpc/client/clnt.h"
#include "rpc/client/rpcvarp.h"
#include "tests/lab.h"

namespace lab {

constexpr timeval kLong = {20, 0};  // nothing waits so long

inline sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

/// Tests of a transport, which make `client_`.
class ClientTest : public LabTest {
 protected:
  void TearDown() override { destroy(); }

  void destroy() {
    if (client_ != nullptr) client_->ops->destroy(client_);
    client_ = nullptr;
  }

  /// Calls procedure 7 with the argument 8.
  clnt_stat call(timeval limit = kLong) {
    int32_t argument = 8;
    return client_->ops->call(client_, 7, xdr_filter<__brix_xdr_int>, &argument,
                              xdr_filter<__brix_xdr_int>, &result_, limit);
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
  int32_t result_ = 0;
};

}  // namespace lab

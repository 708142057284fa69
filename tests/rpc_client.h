// RPC clients under test, and one procedure that is called through them.
#pragma once

#include <sys/time.h>

#include "rpc/clnt.h"
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

  rpc_err error() const {
    rpc_err error{};
    client_->ops->geterr(client_, &error);
    return error;
  }

  CLIENT* client_ = nullptr;
  int32_t result_ = 0;
};

}  // namespace lab

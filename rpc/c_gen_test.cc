#include "rpc/c_gen.h"

#include <cerrno>
#include <cstdlib>

#include "rpc/auth/auth.h"
#include "tests/rpc_client.h"
#include "tests/rpc_server.h"

namespace {

constexpr rpc_createerr kUntouched = {RPC_CANCELLED, {}};

class CreateTest : public lab::ClientTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    *__get_rpc_createerr() = kUntouched;
    unsetenv("KIV_TRANSPORT");
  }
};

TEST_F(CreateTest, OwnNamesGoToLoopback) {
  lab::RpcServer mapper(7938, "127.0.0.1", lab::port_mapper(4711));
  for (const char* host :
       {static_cast<const char*>(nullptr), "", "lab-host", "127.0.0.1", "192.0.2.1", "  manager"}) {
    SCOPED_TRACE(testing::PrintToString(host));
    client_ = __brix_clnt_create(host, 100122, 0, "UdP");
    ASSERT_NE(client_, nullptr);
    const auto server = get<sockaddr_in>(CLGET_SERVER_ADDR);
    EXPECT_EQ(ntohl(server.sin_addr.s_addr), INADDR_LOOPBACK);
    EXPECT_EQ(ntohs(server.sin_port), 4711);
    EXPECT_EQ(get<timeval>(CLGET_TIMEOUT).tv_sec, 25);
    EXPECT_EQ(get<timeval>(CLGET_RETRY_TIMEOUT).tv_sec, 5);
    destroy();
  }
  EXPECT_EQ(__get_rpc_createerr()->status, RPC_CANCELLED) << "success does not clear it";
}

TEST_F(CreateTest, WhatCannotBeMade) {
  lab::EmptyPortMappers mappers;
  const struct {
    const char* host;
    const char* transport;
    const char* environment;
    clnt_stat status;
    int32_t error;
  } cases[] = {
      {"no-such-host", "sctp", nullptr, RPC_UNKNOWNHOST, 0},
      {"manager", "sctp", nullptr, RPC_SYSTEMERROR, EPFNOSUPPORT},
      {"manager", nullptr, "ud", RPC_SYSTEMERROR, EPFNOSUPPORT},
      {"manager", "udp", "", RPC_PROGNOTREGISTERED, 0},
      {"manager", "", "UDP", RPC_PROGNOTREGISTERED, 0},
      {"manager", nullptr, "", RPC_CANCELLED, 0},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(testing::PrintToString(test.transport));
    *__get_rpc_createerr() = kUntouched;
    if (test.environment != nullptr) setenv("KIV_TRANSPORT", test.environment, 1);
    client_ = __brix_clnt_create(test.host, 100122, 0, test.transport);
    unsetenv("KIV_TRANSPORT");
    expect_not_created(test.status, test.error);
  }
}

TEST_F(CreateTest, WithAuthentication) {
  lab::RpcServer mapper(7938, "127.0.0.1", lab::port_mapper(4711));
  client_ = clnt_create_with_auth("", 100122, 0, "udp", kAuthMethodsNone);
  ASSERT_NE(client_, nullptr);
  EXPECT_EQ(client_->auth->credential.flavour, kAuthNone);
}

}  // namespace

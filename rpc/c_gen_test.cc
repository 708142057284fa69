#include "rpc/c_gen.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdlib>

#include "liblocal/hosts/is_mynam.h"
#include "rpc/auth/auth.h"
#include "tests/fakes.h"
#include "tests/rpc_client.h"
#include "tests/work.h"

namespace {

using namespace machine;

// In the test machine, as mappers have fixed ports, and hosts their names.
class CreateTest : public ClientTest {
 protected:
  void SetUp() override {
    if (skip_outside()) return;
    over_udp_.emplace(7938, "127.0.0.1", port_mapper(4711));
    over_tcp_.emplace(7938, "127.0.0.1", port_mapper(7938), SOCK_STREAM);
    *__get_rpc_createerr() = {RPC_CANCELLED, {}};
    unsetenv("KIV_TRANSPORT");
  }

  void expect_server(uint16_t port) {
    const auto server = get<sockaddr_in>(CLGET_SERVER_ADDR);
    EXPECT_EQ(server.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(ntohs(server.sin_port), port);
  }

  std::optional<RpcServer> over_udp_, over_tcp_;  // know every program
};

TEST_F(CreateTest, OverTcp) {
  setenv("KIV_TRANSPORT", "SPP", 1);
  for (const char* name : {"tcp", "PIPE", "shm", "spp", ""}) {
    client_ = __brix_clnt_create("localhost", 5, 6, name);
    ASSERT_NE(client_, nullptr) << name;
    expect_server(7938);
    EXPECT_TRUE(equal(get<timeval>(CLGET_TIMEOUT), {30, 0}));
    EXPECT_EQ(call(), RPC_SUCCESS);
    destroy();
  }
  EXPECT_EQ(__get_rpc_createerr()->status, RPC_CANCELLED) << "success does not clear it";
}

TEST_F(CreateTest, OverUdp) {
  const std::string lines =
      printed(3, [this] { client_ = __brix_clnt_create(nullptr, 5, 6, "Udp"); });
  EXPECT_THAT(lines, testing::HasSubstr("Calling clntudp_create function\n"));
  ASSERT_NE(client_, nullptr);
  expect_server(4711);
  EXPECT_TRUE(equal(get<timeval>(CLGET_TIMEOUT), {25, 0}));
  EXPECT_TRUE(equal(get<timeval>(CLGET_RETRY_TIMEOUT), {5, 0}));
}

TEST_F(CreateTest, ThisHostIsAskedOverLoopback) {
  for (const char* host : {"", "testhost", "192.0.2.1", "  manager"}) {
    client_ = __brix_clnt_create(host, 5, 6, "udp");
    ASSERT_NE(client_, nullptr) << host;
    expect_server(4711);
    destroy();
  }
}

TEST_F(CreateTest, AHostOfAnOwnAddressIsAskedOverLoopback) {
  ASSERT_EQ(is_myname("everybody"), 0);  // its name stays another host's
  const std::vector<fakes::Interface> own = {{1, "127.255.255.255"}};
  fakes::interfaces = &own;
  client_ = __brix_clnt_create("everybody", 5, 6, "udp");
  fakes::interfaces = nullptr;
  ASSERT_NE(client_, nullptr);
  expect_server(4711);
}

TEST_F(CreateTest, WithAllowedMethods) {
  for (const auto& [transport, methods] : {std::pair("tcp", kAuthMethodsSystem), {"udp", 0U}}) {
    client_ = clnt_create_with_auth("", 5, 6, transport, kAuthMethodsSystem | 128);
    ASSERT_NE(client_, nullptr);
    uint32_t found = 0;  // UDP has none
    EXPECT_EQ(control(CLGET_AUTH_METHODS, &found), methods != 0);
    EXPECT_EQ(found, methods);
    EXPECT_EQ(client_->auth->credential.flavour, kAuthNone);
    destroy();
  }
}

TEST_F(CreateTest, OnlyForAddressesOfIpv4) {
  sockaddr_in server = loopback(7938);
  server.sin_family = AF_INET6;
  EXPECT_EQ(clntgen_create(&server, 5, 6, nullptr, &socket_, 0, 0), nullptr);
}

TEST_F(CreateTest, WhatCannotBeMade) {
  const struct {
    const char *host, *transport, *environment;
    clnt_stat status;
    int32_t error;
  } rows[] = {{"no-such-host", "sctp", "", RPC_UNKNOWNHOST, 0},
              {"manager", nullptr, "ud", RPC_SYSTEMERROR, EPFNOSUPPORT},
              {"station", "tcp", "", RPC_SYSTEMERROR, ECONNREFUSED},  // no mapper is there
              {"manager", nullptr, "", RPC_CANCELLED, 0}};
  for (const auto& row : rows) {
    *__get_rpc_createerr() = {RPC_CANCELLED, {}};
    setenv("KIV_TRANSPORT", row.environment, 1);
    client_ = clnt_create_with_auth(row.host, 5, 6, row.transport, kAuthMethodsNone);
    expect_not_created(row.status, row.error);
  }
}

TEST_F(CreateTest, AMapperThatCannotBeAskedIsTheCause) {
  fakes::refuse(fakes::waits, EIO, 2);
  client_ = __brix_clnt_create("", 5, 6, "udp");
  expect_not_created(RPC_PMAPFAILURE, EIO);
  EXPECT_EQ(__get_rpc_createerr()->cause.status, RPC_CANTRECV);
}

}  // namespace

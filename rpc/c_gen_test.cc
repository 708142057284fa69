#include "rpc/c_gen.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdlib>
#include <optional>

#include "rpc/auth/auth.h"
#include "tests/fakes.h"
#include "tests/rpc_client.h"
#include "tests/rpc_server.h"
#include "tests/work.h"

namespace {

using namespace machine;

constexpr rpc_createerr kUntouched = {RPC_CANCELLED, {}};

// In the test machine, as mappers have fixed ports, and hosts their names.
class CreateTest : public ClientTest {
 protected:
  void SetUp() override {
    if (skip_outside()) return;
    over_udp_.emplace(7938, "127.0.0.1", port_mapper(4711));
    over_tcp_.emplace(7938, "127.0.0.1", port_mapper(7938), SOCK_STREAM);
    *__get_rpc_createerr() = kUntouched;
    unsetenv("KIV_TRANSPORT");
  }

  std::optional<RpcServer> over_udp_, over_tcp_;  // know every program
};

TEST_F(CreateTest, OwnNamesGoToLoopbackOverEveryTransport) {
  setenv("KIV_TRANSPORT", "SPP", 1);
  const std::pair<const char*, const char*> cases[] = {{nullptr, "tcp"},    {"", "PIPE"},
                                                       {"testhost", "shm"}, {"127.0.0.1", "spp"},
                                                       {"192.0.2.1", ""},   {"  manager", "Udp"}};
  for (const auto& [host, name] : cases) {
    SCOPED_TRACE(name);
    const bool udp = *name == 'U';
    const std::string kind = udp ? "udp" : "tcp";
    constexpr uint32_t kAllowed = kAuthMethodsSystem | 128;
    const auto make = [&, host = host, name = name] {
      client_ = clnt_create_with_auth(host, 100122, 0, name, kAllowed);
    };
    EXPECT_THAT(printed(3, make), testing::HasSubstr("Calling clnt" + kind + "_create function\n"));
    ASSERT_NE(client_, nullptr);
    const auto found = get<sockaddr_in>(CLGET_SERVER_ADDR);
    EXPECT_TRUE(found.sin_addr.s_addr == htonl(INADDR_LOOPBACK));
    EXPECT_EQ(ntohs(found.sin_port), udp ? 4711 : 7938);
    EXPECT_EQ(client_->auth->credential.flavour, kAuthNone);
    uint32_t methods = 0;  // UDP has none
    EXPECT_TRUE(control(CLGET_AUTH_METHODS, &methods) != udp &&
                methods == (udp ? 0 : kAuthMethodsSystem));
    EXPECT_TRUE(equal(get<timeval>(CLGET_TIMEOUT), {udp ? 25 : 30, 0}));
    EXPECT_TRUE(udp ? equal(get<timeval>(CLGET_RETRY_TIMEOUT), {5, 0}) : call() == RPC_SUCCESS);
    destroy();
  }
  sockaddr_in server = loopback(7938);
  memset(server.sin_zero, 1, sizeof server.sin_zero);
  client_ = clntgen_create(&server, 5, 6, nullptr, &socket_, 0, 0);
  EXPECT_EQ(to_hex({reinterpret_cast<char*>(server.sin_zero), 8}), "0000000000000000");
  server.sin_family = AF_INET6;
  EXPECT_EQ(clntgen_create(&server, 5, 6, nullptr, &socket_, 0, 0), nullptr);
  EXPECT_EQ(__get_rpc_createerr()->status, RPC_CANCELLED) << "success does not clear it";
}

TEST_F(CreateTest, WhatCannotBeMade) {
  const std::tuple<const char*, const char*, const char*, clnt_stat, int32_t> cases[] = {
      {"no-such-host", "sctp", nullptr, RPC_UNKNOWNHOST, 0},
      {"manager", "sctp", nullptr, RPC_SYSTEMERROR, EPFNOSUPPORT},
      {"manager", nullptr, "ud", RPC_SYSTEMERROR, EPFNOSUPPORT},
      {"manager", "udpx", "udp", RPC_SYSTEMERROR, EPFNOSUPPORT},
      {"manager", "udp", nullptr, RPC_PMAPFAILURE, EIO},           // as a wait fails
      {"station", "tcp", nullptr, RPC_SYSTEMERROR, ECONNREFUSED},  // no mapper is there
      {"manager", nullptr, "", RPC_CANCELLED, 0}};
  for (const auto& [host, transport, environment, status, error] : cases) {
    SCOPED_TRACE(testing::PrintToString(transport));
    *__get_rpc_createerr() = kUntouched;
    if (environment != nullptr) setenv("KIV_TRANSPORT", environment, 1);
    fakes::refuse(fakes::waits, EIO, error == EIO ? 2 : 0);
    client_ = clnt_create_with_auth(host, 100122, 0, transport, kAuthMethodsNone);
    fakes::refuse(fakes::waits, 0, 0);
    unsetenv("KIV_TRANSPORT");
    expect_not_created(status, error);
    EXPECT_EQ(__get_rpc_createerr()->cause.status == RPC_CANTRECV, error == EIO);
  }
}

}  // namespace

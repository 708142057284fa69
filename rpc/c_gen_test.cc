#include "rpc/c_gen.h"

#include <gmock/gmock.h>

#include "liblocal/hosts/is_mynam.h"
#include "tests/fakes.h"
#include "tests/rpc_client.h"

namespace {

using namespace machine;
using namespace fakes;

// The port mappers have fixed ports.
class CreateTest : public ClientTest {
 protected:
  void SetUp() override {
    if (skip_without_ports()) return;
    over_udp_.emplace(7938, "127.0.0.1", port_mapper(4711));
    over_tcp_.emplace(7938, "127.0.0.1", port_mapper(7938), SOCK_STREAM);
    unsetenv("KIV_TRANSPORT");
  }

  void expect_server(uint16_t port, timeval total) {
    ASSERT_NE(client_, nullptr);
    const auto server = get<sockaddr_in>(CLGET_SERVER_ADDR), wanted = loopback(port);
    EXPECT_EQ(memcmp(&server, &wanted, sizeof server), 0);
    EXPECT_TRUE(equal(get<timeval>(CLGET_TIMEOUT), total));
  }

  std::optional<RpcServer> over_udp_, over_tcp_;  // know every program
};

TEST_F(CreateTest, OverTcp) {
  setenv("KIV_TRANSPORT", "SPP", 1);
  for (const char* name : {"tcp", "PIPE", "shm", ""}) {
    client_ = clnt_create_with_auth("localhost", 5, 6, name, kAuthMethodsNone | 128);
    expect_server(7938, {30, 0});
    EXPECT_EQ(get<uint32_t>(CLGET_AUTH_METHODS), kAuthMethodsNone);
    EXPECT_EQ(call(), kSuccess);
    destroy();
  }
}

TEST_F(CreateTest, ThisHostIsAskedOverLoopback) {
  if (skip_outside()) return;
  const std::vector<Interface> own = {{1, "127.255.255.255"}};
  ASSERT_EQ(is_myname("everybody"), 0);  // its address is own, its name another host's
  interfaces = &own;
  for (const char* host : {"", "testhost", "everybody"}) {
    SCOPED_TRACE(host);
    client_ = __brix_clnt_create(host, 5, 6, "udp");
    expect_server(4711, {25, 0});
    EXPECT_TRUE(equal(get<timeval>(CLGET_RETRY_TIMEOUT), {5, 0}));
    destroy();
  }
  interfaces = nullptr;
}

TEST_F(CreateTest, WhatCannotBeMade) {
  if (skip_outside()) return;
  const struct {
    const char *host, *transport, *environment;
    std::string reason;
  } rows[] = {{"nobody", "sctp", "", "Unknown host\n"},
              {"", nullptr, "", "Unknown host\n"},  // left as it was
              {nullptr, nullptr, "ud", kSystemError + "Protocol family not supported\n"},
              {"station", "tcp", "", kSystemError + "Connection refused\n"}};  // no mapper is there
  for (const auto& row : rows) {
    setenv("KIV_TRANSPORT", row.environment, 1);
    EXPECT_EQ(clnt_create_with_auth(row.host, 5, 6, row.transport, kAuthMethodsNone), nullptr);
    EXPECT_EQ(__brix_clnt_spcreateerror(nullptr), row.reason);
  }
}

TEST_F(CreateTest, FailsWithTheMapper) {
  refuse(waits, EIO, 2);
  EXPECT_EQ(__brix_clnt_create("", 5, 6, "udp"), nullptr);
  EXPECT_THAT(__brix_clnt_spcreateerror(nullptr),
              testing::StartsWith("Port mapper failure - RPC receive"));
}

}  // namespace

// The command and the RPC engine against a real port mapper.
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "rpc/c_gen.h"
#include "rpc/portmap/pmap.h"
#include "tests/rpc_client.h"
#include "tests/rpc_server.h"

namespace {

using StationTest = lab::ClientTest;

TEST_F(StationTest, ARealPortMapper) {
  if (lab::skip_outside()) return;
  // The port at which a client of the station's program is made; 0 when it is not.
  auto look_up = [&](const char* transport, unsigned long program, unsigned long version) {
    destroy();
    client_ = __brix_clnt_create("station", program, version, transport);
    return client_ != nullptr ? ntohs(get<sockaddr_in>(CLGET_SERVER_ADDR).sin_port) : 0;
  };
  lab::UdpReceiver manager(162, "127.0.0.2");
  lab::RpcServer own(kOwnMapperPort, "127.0.0.2", lab::port_mapper(0));
  const pid_t mapper = fork();
  if (mapper == 0) _exit(execlp("rpcbind", "rpcbind", "-f", nullptr));
  sockaddr_in server = lab::loopback(kStandardMapperPort);
  const timeval retry = {0, 50000};  // until it has started
  CLIENT* registrar = clntgen_create(&server, kPmapProgram, kPmapVersion, &retry, &socket_, 0, 0);
  ASSERT_NE(registrar, nullptr);
  pmap entry = {100122, 0, IPPROTO_UDP, 4711};
  EXPECT_EQ(registrar->ops->call(registrar, 1, xdr_filter<__brix_xdr_pmap>, &entry,
                                 xdr_filter<__brix_xdr_int>, &result_, lab::kLong),
            RPC_SUCCESS);
  EXPECT_EQ(result_, 1);
  EXPECT_EQ(look_up("udp", 100122, 0), 4711);
  EXPECT_EQ(look_up("tcp", 100122, 0), 0);
  expect_not_created(RPC_PROGNOTREGISTERED, 0);
  EXPECT_EQ(lab::run({{KIVTRAP, "station"}, std::string(38, 'x') + " wrapped\n"}).status, 0);
  EXPECT_TRUE(manager.receive().value_or("").ends_with("x\nwrapped"));
  registrar->ops->destroy(registrar);
  // Look-ups for connections go over connections.
  EXPECT_EQ(look_up(nullptr, kPmapProgram, kPmapVersion), kStandardMapperPort);
  kill(mapper, SIGTERM);
  waitpid(mapper, nullptr, 0);  // its ports are free from here on
}

}  // namespace

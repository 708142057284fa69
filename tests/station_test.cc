// The command and the RPC engine against a real port mapper, and the example listener as a
// process.
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <regex>

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

TEST(Listener, PrintsATrapWholeAndOutlivesSignalsAndRubbish) {
  if (lab::skip_without_ports()) return;
  lab::Command command{{TRAP_LISTENER, "--count", "1"}};
  command.before_input = [](pid_t listener) {
    while (lab::read_file("/proc/net/udp").find(":00A2 ") == std::string::npos) usleep(1000);
    kill(listener, SIGUSR2);
    // Rubbish, a request, and texts that would act on a terminal.
    for (const char* datagram :
         {"30", "3012 020100 0400 A00B 020109 020100 020100 3000",
          "3044 020100 0403 61221B A43A 06072B06010401A73B 40040A010203 020102 0201FF 43024E20"
          "301F 300A 06022B06 04041B5B324A  3009 06022B06 0403616200  3006 06022B06 0500"}) {
      const lab::Command send{{"bash", "-c", "cat >/dev/udp/127.0.0.1/162"}, from_hex(datagram)};
      EXPECT_EQ(lab::run(send).status, 0);
    }
  };
  const lab::Outcome outcome = lab::run(command);
  EXPECT_EQ(outcome.err + std::to_string(outcome.status), "Mangled packet\n0");
  const std::regex varying("(\n)[-0-9]+ [0-9:]+  |(127.0.0.1:)\\d+");
  EXPECT_EQ(std::regex_replace(outcome.out, varying, "$1$2"),
            "Listening for traps on UDP port 162.\n\ntrap from 127.0.0.1:\n"
            "  community   \"a\\\"\\x1B\"\n  enterprise  1.3.6.1.4.1.5051\n  agent       10.1.2.3\n"
            "  generic     linkDown(2)\n  specific    -1\n  up-time     0 days 0:03:20\n"
            "  1.3.6 = OCTET STRING 4 bytes: 1B 5B 32 4A\n"
            "  1.3.6 = OCTET STRING 3 bytes: 61 62 00\n  1.3.6 = NULL\n\n");
}

}  // namespace

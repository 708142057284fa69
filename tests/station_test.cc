// The command and the RPC engine against a real port mapper, and their calls as an
// independent decoder reads them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <utility>

#include "rpc/auth/a_unix.h"
#include "rpc/auth/auth.h"
#include "rpc/c_gen.h"
#include "rpc/client/rpcvarp.h"
#include "rpc/portmap/pmap.h"
#include "tests/rpc_client.h"
#include "tests/rpc_server.h"

namespace {

using lab::kLong;
using lab::RpcServer;

constexpr char kStation[] = "127.0.0.2";
constexpr unsigned long kPmapSet = 1;

class StationTest : public lab::ClientTest {
 protected:
  // The port at which a client of the station's program is made; 0 when it is not.
  uint16_t look_up(const char* transport, unsigned long program, unsigned long version) {
    destroy();
    client_ = __brix_clnt_create("station", program, version, transport);
    sockaddr_in server{};
    if (client_ != nullptr) control(CLGET_SERVER_ADDR, &server);
    return ntohs(server.sin_port);
  }

  // A client of the standard port mapper itself.
  void connect_to_mapper(timeval retry = kLong) {
    sockaddr_in server = lab::loopback(kStandardMapperPort);
    int socket = -1;
    client_ = clntgen_create(&server, kPmapProgram, kPmapVersion, &retry, &socket, 0, 0);
    ASSERT_NE(client_, nullptr);
  }

  clnt_stat call_mapper(unsigned long procedure, pmap argument, int32_t* result) {
    return client_->ops->call(client_, procedure, xdr_filter<__brix_xdr_pmap>, &argument,
                              xdr_filter<__brix_xdr_int>, result, kLong);
  }

  // The text of a run, and its exit status.
  static std::string told(std::vector<std::string> words, const std::string& input = "") {
    const lab::Outcome outcome = lab::run({std::move(words), input});
    return outcome.out + outcome.err + std::to_string(outcome.status);
  }
};

TEST_F(StationTest, ARealPortMapper) {
  if (lab::skip_outside()) return;
  lab::UdpReceiver manager(162, kStation);
  RpcServer own(kOwnMapperPort, kStation, lab::port_mapper(0));
  const pid_t mapper = fork();
  if (mapper == 0) _exit(execlp("rpcbind", "rpcbind", "-f", nullptr));
  connect_to_mapper({0, 50000});
  CLIENT* registrar = std::exchange(client_, nullptr);
  EXPECT_EQ(registrar->ops->call(registrar, 0, __brix_xdr_void, nullptr, __brix_xdr_void, nullptr,
                                 kLong),  // repeated until it has started
            RPC_SUCCESS);
  for (const bool registered : {false, true}) {
    if (registered) {
      client_ = registrar;
      EXPECT_EQ(call_mapper(kPmapSet, {100122, 0, IPPROTO_UDP, 4711}, &result_), RPC_SUCCESS);
      EXPECT_EQ(result_, 1);
    }
    EXPECT_EQ(look_up("udp", 100122, 0), registered ? 4711 : 0);
    EXPECT_EQ(look_up("tcp", 100122, 0), 0);
    EXPECT_EQ(__get_rpc_createerr()->status, RPC_PROGNOTREGISTERED);
    EXPECT_EQ(told({KIVTRAP, "station"}, std::string(38, 'x') + " wrapped\n"), "0");
    EXPECT_TRUE(manager.receive().value_or("").ends_with(registered ? "x\nwrapped" : "x wrapped"));
  }
  // Look-ups for connections go over connections.
  EXPECT_EQ(look_up(nullptr, kPmapProgram, kPmapVersion), kStandardMapperPort);
  for (const char* transport : {"udp", "tcp"}) {
    EXPECT_EQ(told({RPC_PING, "station", "100000", "2", transport}),
              "program 100000 version 2 is ready\n0");
  }
  EXPECT_EQ(told({RPC_PING, "station", "100122", "2", "tcp"}),
            "station: Program not registered\n1");
  kill(mapper, SIGTERM);
}

TEST_F(StationTest, AnIndependentDecoderReadsTheCalls) {
  if (lab::skip_without_ports()) return;
  RpcServer mapper(kStandardMapperPort, "127.0.0.1", lab::port_mapper(7));
  connect_to_mapper();
  const gid_t groups[] = {7};
  AUTH* system = __brix_authsys_create("box", 5, 6, 1, groups);
  for (AUTH* auth : {client_->auth, system}) {
    client_->auth = auth;
    EXPECT_EQ(call_mapper(kPmapGetPort, {100122, 0, IPPROTO_UDP, 0}, &result_), RPC_SUCCESS);
    EXPECT_EQ(result_, 7);
  }
  system->ops->destroy(system);
  // A row for each packet, with ',' between the values of a field that comes several times.
  // The decoder shows the version of the program twice.
  std::string packets;
  for (const std::string& packet : mapper.requests()) {
    packets += "0000";  // the offset, at which a packet begins
    for (char byte : packet) packets += " " + to_hex({&byte, 1});
    packets += "\n";
  }
  EXPECT_EQ(told({"sh", "-c",
                  "text2pcap -q -u 40000,111 - - 2>/dev/null | HOME=/tmp tshark -r - -T fields "
                  "-E 'separator=|' -e rpc.msgtyp -e rpc.version -e rpc.program "
                  "-e rpc.programversion -e rpc.procedure -e rpc.auth.flavor -e rpc.auth.length "
                  "-e rpc.auth.machinename -e rpc.auth.uid -e rpc.auth.gid -e portmap.prog "
                  "-e portmap.version -e portmap.proto -e portmap.port -e _ws.expert.message "
                  "-e _ws.malformed 2>/dev/null"},
                 packets),
            "0|2|100000|2,2|3|0,0|0,0||||100122|0|17|0||\n"
            "0|2|100000|2,2|3|1,0|28,0|box|5|6,7|100122|0|17|0||\n0");
}

}  // namespace

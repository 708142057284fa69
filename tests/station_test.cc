// The command and the RPC engine against a real port mapper on a second machine, and
// their calls as an independent decoder reads them.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <utility>

#include "rpc/auth/a_unix.h"
#include "rpc/auth/auth.h"
#include "rpc/c_gen.h"
#include "rpc/client/rpcvarp.h"
#include "rpc/portmap/pmap.h"
#include "tests/decoder.h"
#include "tests/rpc_client.h"
#include "tests/rpc_server.h"

namespace {

using lab::kLong;
using lab::RpcServer;

constexpr char kStation[] = "10.9.0.2";
constexpr unsigned long kPmapSet = 1;

// rpcbind, until the object goes.
class RealPortMapper {
 public:
  RealPortMapper() : process_(fork()) {
    if (process_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    execlp("rpcbind", "rpcbind", "-f", nullptr);
    _exit(127);
  }
  ~RealPortMapper() {
    kill(process_, SIGTERM);
    waitpid(process_, nullptr, 0);
  }

 private:
  pid_t process_;
};

class StationTest : public lab::ClientTestOn<LabTest> {
 protected:
  void SetUp() override {
    if (lab::skip_outside()) return;
    station_.emplace(std::vector<std::string>{kStation});
    station_->inside([this] { manager_.emplace(uint16_t{162}, kStation); });
  }

  // The port at which a client of the station's program is made; 0 when it is not.
  uint16_t look_up(const char* transport, unsigned long program, unsigned long version) {
    destroy();
    client_ = __brix_clnt_create("station", program, version, transport);
    sockaddr_in server{};
    if (client_ != nullptr) control(CLGET_SERVER_ADDR, &server);
    return ntohs(server.sin_port);
  }

  bool sends_wrapped_text() {
    lab::Command command;
    command.words = {KIVTRAP, "station"};
    command.input = std::string(38, 'x') + " wrapped\n";
    lab::Outcome outcome = lab::run(command);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    std::string trap = manager_->receive().value_or("");
    EXPECT_TRUE(trap.ends_with("wrapped"));
    return trap.ends_with("x\nwrapped");
  }

  // The exit status and the text of the example that calls a null procedure.
  static std::string ping(const char* program, const char* transport) {
    lab::Command command;
    command.words = {RPC_PING, "station", program, "2", transport};
    const lab::Outcome outcome = lab::run(command);
    return std::to_string(outcome.status) + " " + outcome.out + outcome.err;
  }

  // A client of the standard port mapper itself, on the machine that this is run on.
  void connect_to_mapper(timeval retry = kLong) {
    sockaddr_in server = lab::loopback(kStandardMapperPort);
    int socket = -1;
    client_ = clntgen_create(&server, kPmapProgram, kPmapVersion, &retry, &socket, 0, 0);
    ASSERT_NE(client_, nullptr);
  }

  std::optional<lab::SecondHost> station_;
  std::optional<lab::UdpReceiver> manager_;
};

TEST_F(StationTest, ARealPortMapper) {
  std::optional<RpcServer> own;
  std::optional<RealPortMapper> mapper;
  station_->inside([&] {
    own.emplace(kOwnMapperPort, kStation, lab::port_mapper(0));
    mapper.emplace();
    // From there alone programs may be registered. It is called until it has started.
    connect_to_mapper({0, 50000});
  });
  ASSERT_EQ(
      client_->ops->call(client_, 0, __brix_xdr_void, nullptr, __brix_xdr_void, nullptr, kLong),
      RPC_SUCCESS);
  CLIENT* registrar = std::exchange(client_, nullptr);
  EXPECT_EQ(look_up("udp", 100122, 0), 0);
  EXPECT_EQ(__get_rpc_createerr()->status, RPC_PROGNOTREGISTERED);
  EXPECT_FALSE(sends_wrapped_text());

  pmap registration = {100122, 0, IPPROTO_UDP, 4711};
  int32_t done = 0;
  ASSERT_EQ(registrar->ops->call(registrar, kPmapSet, xdr_filter<__brix_xdr_pmap>, &registration,
                                 xdr_filter<__brix_xdr_bool>, &done, kLong),
            RPC_SUCCESS);
  EXPECT_EQ(done, 1);
  registrar->ops->destroy(registrar);
  EXPECT_EQ(look_up("udp", 100122, 0), 4711);
  EXPECT_TRUE(sends_wrapped_text());

  // Look-ups for connections go over connections.
  EXPECT_EQ(look_up("tcp", 100122, 0), 0);
  EXPECT_EQ(__get_rpc_createerr()->status, RPC_PROGNOTREGISTERED);
  EXPECT_EQ(look_up(nullptr, kPmapProgram, kPmapVersion), kStandardMapperPort);
  for (const char* transport : {"udp", "tcp"}) {
    EXPECT_EQ(ping("100000", transport), "0 program 100000 version 2 is ready\n");
  }
  EXPECT_EQ(ping("100122", "tcp"), "1 station: Program not registered\n");
}

TEST_F(StationTest, AnIndependentDecoderReadsTheCalls) {
  RpcServer mapper(kStandardMapperPort, "127.0.0.1", lab::port_mapper(7));
  connect_to_mapper();
  pmap wanted = {100122, 0, IPPROTO_UDP, 0};
  const gid_t groups[] = {7};
  AUTH* system = __brix_authsys_create("box", 5, 6, 1, groups);
  for (AUTH* auth : {client_->auth, system}) {
    uint16_t port = 0;
    client_->auth = auth;
    EXPECT_EQ(client_->ops->call(client_, kPmapGetPort, xdr_filter<__brix_xdr_pmap>, &wanted,
                                 xdr_filter<__brix_xdr_u_short>, &port, kLong),
              RPC_SUCCESS);
    EXPECT_EQ(port, 7);
  }
  system->ops->destroy(system);
  // The decoder shows the version of the program twice.
  EXPECT_EQ(decoded(mapper.requests(), kStandardMapperPort,
                    {"rpc.msgtyp", "rpc.version", "rpc.program", "rpc.programversion",
                     "rpc.procedure", "rpc.auth.flavor", "rpc.auth.length", "rpc.auth.machinename",
                     "rpc.auth.uid", "rpc.auth.gid", "portmap.prog", "portmap.version",
                     "portmap.proto", "portmap.port", "_ws.expert.message", "_ws.malformed"}),
            "0|2|100000|2,2|3|0,0|0,0||||100122|0|17|0||\n"
            "0|2|100000|2,2|3|1,0|28,0|box|5|6,7|100122|0|17|0||\n");
}

}  // namespace

// The command and the RPC engine against a real port mapper on a second machine, and
// their calls as an independent decoder reads them.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "rpc/c_gen.h"
#include "rpc/pmap.h"
#include "rpc/rpcvarp.h"
#include "tests/packets.h"
#include "tests/rpc_server.h"

namespace {

constexpr char kStation[] = "10.9.0.2";
constexpr unsigned long kPmapSet = 1;
constexpr timeval kLimit = {20, 0};

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

// A client of the port mapper at 127.0.0.1, which alone may register programs.
CLIENT* mapper_client() {
  constexpr timeval kRetry = {0, 50000};  // until it has started
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_port = htons(kStandardMapperPort);
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int socket = -1;
  return clntgen_create(&server, kPmapProgram, kPmapVersion, &kRetry, &socket, 0, 0);
}

class StationTest : public LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    station_.emplace(std::vector<std::string>{kStation});
    station_->inside([this] {
      manager_.emplace(uint16_t{162}, kStation);
      own_.emplace(7938, kStation, lab::port_mapper(0));
    });
  }

  static std::string send_trap() {
    lab::Command command;
    command.words = {KIVTRAP, "station"};
    command.input = std::string(38, 'x') + " wrapped\n";
    lab::Outcome outcome = lab::run(command);
    return outcome.status == 0 ? outcome.err : "failed: " + outcome.err;
  }

  std::optional<lab::SecondHost> station_;
  std::optional<lab::UdpReceiver> manager_;
  std::optional<lab::RpcServer> own_;
};

TEST_F(StationTest, ARealPortMapper) {
  std::optional<RealPortMapper> mapper;
  station_->inside([&] { mapper.emplace(); });
  CLIENT* client = nullptr;
  station_->inside([&] { client = mapper_client(); });
  ASSERT_NE(client, nullptr);
  ASSERT_EQ(
      client->ops->call(client, 0, __brix_xdr_void, nullptr, __brix_xdr_void, nullptr, kLimit),
      RPC_SUCCESS);

  EXPECT_EQ(__brix_clnt_create("station", 100122, 0, "udp"), nullptr);
  EXPECT_EQ(__get_rpc_createerr()->status, RPC_PROGNOTREGISTERED);
  EXPECT_EQ(send_trap(), "");
  EXPECT_TRUE(manager_->receive().value_or("").ends_with("x wrapped"));

  pmap registration = {100122, 0, IPPROTO_UDP, 4711};
  int32_t done = 0;
  ASSERT_EQ(client->ops->call(client, kPmapSet, xdr_filter<__brix_xdr_pmap>, &registration,
                              xdr_filter<__brix_xdr_bool>, &done, kLimit),
            RPC_SUCCESS);
  EXPECT_EQ(done, 1);
  client->ops->destroy(client);

  client = __brix_clnt_create("station", 100122, 0, "udp");
  ASSERT_NE(client, nullptr);
  sockaddr_in server{};
  client->ops->control(client, CLGET_SERVER_ADDR, &server);
  EXPECT_EQ(ntohs(server.sin_port), 4711);
  client->ops->destroy(client);
  EXPECT_EQ(send_trap(), "");
  EXPECT_TRUE(manager_->receive().value_or("").ends_with("x\nwrapped"));

  // Look-ups for connections go over connections.
  EXPECT_EQ(__brix_clnt_create("station", 100122, 0, "tcp"), nullptr);
  EXPECT_EQ(__get_rpc_createerr()->status, RPC_PROGNOTREGISTERED);
  client = __brix_clnt_create("station", kPmapProgram, kPmapVersion, nullptr);
  ASSERT_NE(client, nullptr);
  client->ops->control(client, CLGET_SERVER_ADDR, &server);
  EXPECT_EQ(ntohs(server.sin_port), kStandardMapperPort);
  EXPECT_EQ(
      client->ops->call(client, 0, __brix_xdr_void, nullptr, __brix_xdr_void, nullptr, kLimit),
      RPC_SUCCESS);
  client->ops->destroy(client);
}

TEST_F(StationTest, AnIndependentDecoderReadsTheCalls) {
  std::optional<lab::RpcServer> standard;
  station_->inside([&] { standard.emplace(111, kStation, lab::port_mapper(0)); });
  EXPECT_EQ(send_trap(), "");
  std::string capture = kCaptureHeader;
  append_packet(&capture, own_->requests().at(0), 111);
  append_packet(&capture, standard->requests().at(0), 111);
  lab::write_file("/run/calls.pcap", capture);
  lab::Command tshark;
  tshark.words = {"tshark", "-r", "/run/calls.pcap", "-T", "fields", "-E", "separator=|"};
  for (const char* field :
       {"rpc.msgtyp", "rpc.version", "rpc.program", "rpc.programversion", "rpc.procedure",
        "rpc.auth.flavor", "rpc.auth.length", "portmap.prog", "portmap.version", "portmap.proto",
        "portmap.port", "_ws.expert.message", "_ws.malformed"}) {
    tshark.words.insert(tshark.words.end(), {"-e", field});
  }
  tshark.environment = {"HOME=/run"};
  // The decoder shows the version of the program twice.
  const std::string row = "0|2|100000|2,2|3|0,0|0,0|100122|0|17|0||\n";
  EXPECT_EQ(lab::run(tshark).out, row + row);
}

}  // namespace

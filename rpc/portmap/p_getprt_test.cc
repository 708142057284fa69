#include "rpc/portmap/p_getprt.h"

#include <arpa/inet.h>

#include "rpc/handle/rpcvarp.h"
#include "rpc/portmap/pmap_cache.h"
#include "tests/rpc_client.h"
#include "tests/xdr_streams.h"

using namespace machine;

namespace {

constexpr unsigned long kService = 390113;
constexpr char kVariable[] = "KIVENV_PMAPS";

// Starts each test like a new thread of a process that was handed `value`.
void start_with(const char* value) {
  rpc_t_varp* thread = get_rpc_t_varp();
  cleanup_mappers(thread);
  thread->port_cache_read = false;
  setenv(kVariable, value, 1);
}

class PortTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!skip_without_ports()) start_with("");
  }

  static uint16_t ask(const char* address, unsigned long program, unsigned long version,
                      unsigned long protocol = IPPROTO_UDP) {
    sockaddr_in server = loopback(77);
    server.sin_addr.s_addr = inet_addr(address);
    const uint16_t port = __brix_pmap_getport(&server, program, version, protocol);
    EXPECT_EQ(server.sin_port, 0);
    return port;
  }
};

TEST_F(PortTest, BothMappersComeBeforeTheFallback) {
  RpcServer own(7938, "127.0.0.1", port_mapper(0));
  pmap_fallback([](unsigned long program, unsigned long version, unsigned long protocol) {
    return static_cast<uint16_t>(program * 100 + version * 10 + protocol);
  });
  for (uint16_t registered : {uint16_t{0}, uint16_t{65535}}) {
    RpcServer standard(111, "127.0.0.1", port_mapper(registered));
    EXPECT_EQ(ask("127.0.0.1", 3, 4), registered != 0 ? registered : 357);
    EXPECT_EQ(to_hex(standard.requests().at(0).substr(4)),
              "0000000000000002000186A0000000020000000300000000000000000000000000000000"
              "00000003000000040000001100000000");
    EXPECT_EQ(__get_rpc_createerr()->status, RPC_PROGNOTREGISTERED);  // of the last that failed
  }
  pmap_fallback(nullptr);
}

TEST_F(PortTest, TheCacheAnswersForThisHostAlone) {
  RpcServer own(7938, "0.0.0.0", port_mapper(5));
  start_with("{390113,2,17,7937}{390113,3,17,0}");
  EXPECT_EQ(ask("127.0.0.1", kService, 2), 7937);
  EXPECT_EQ(ask("127.0.0.1", kService, 3), 5);  // not with port 0
  EXPECT_EQ(ask("127.0.0.2", kService, 2), 5);  // a remote host
  const std::vector<fakes::Interface> own_addresses = {{1, "127.0.0.3"}};
  fakes::interfaces = &own_addresses;
  EXPECT_EQ(ask("127.0.0.3", kService, 2), 7937);
  fakes::interfaces = nullptr;
}

TEST_F(PortTest, TheOwnMappersAnswerIsKept) {
  const struct {
    const char* host;
    int kept;
  } rows[] = {{"127.0.0.2", 0}, {"127.0.0.1", 7}};
  for (const auto& row : rows) {
    {
      RpcServer mapper(kOwnMapperPort, row.host, port_mapper(7), SOCK_STREAM);
      EXPECT_EQ(ask(row.host, kService, 2, IPPROTO_TCP), 7);
    }
    EXPECT_EQ(ask("127.0.0.1", kService, 2, IPPROTO_TCP), row.kept);
    EXPECT_STREQ(getenv(kVariable), "");
  }
}

TEST_F(PortTest, GroupsOfTheEnvironment) {
  const struct {
    const char* value;
    unsigned long port;  // of 1,2,3
  } rows[] = {{"{1,2,3,4", 0},
              {"1,2,3,4}", 0},
              {"{1,2,3,4}{1,2,3,9}{1,2,4,5}{1,3,3,6}{2,2,3,7}", 9},
              {"{1x, 2,+3,-10}", -10UL}};
  for (const auto& row : rows) {
    start_with(row.value);
    EXPECT_EQ(pmap_cached_port(1, 2, 3), row.port) << row.value;
  }
}

TEST_F(PortTest, OnlyOwnServicesAreKept) {
  for (unsigned long program = 390100; program < 390120; ++program) {
    populate_pmaps(program, 2, IPPROTO_TCP, 9, 0);
    populate_pmaps(program, 3, IPPROTO_UDP, 9, 1);
  }
  EXPECT_STREQ(getenv(kVariable), "");
  add_pamp_to_env(kService, 2);
  EXPECT_STREQ(getenv(kVariable),
               "{390113,2,6,9}{390110,2,6,9}{390109,2,6,9}{390107,2,6,9}{390105,2,6,9}"
               "{390103,2,6,9}");
  populate_pmaps(390105, 2, IPPROTO_TCP, 14, 0);
  disable_cacheable_pmap();
  EXPECT_EQ(pmap_cached_port(kService, 2, IPPROTO_TCP), 0U);
  EXPECT_FALSE(pmap_is_cacheable(kService, IPPROTO_TCP));
  get_rpc_p_varp()->pmap_cache_off = false;
  EXPECT_EQ(pmap_cached_port(390105, 2, IPPROTO_TCP), 14U);
}

// Newest first; the group that passes 12188 bytes is the last.
TEST_F(PortTest, AsMuchIsExportedAsFits) {
  std::string newest;
  for (unsigned version = 10001; version <= 11000; ++version) {
    populate_pmaps(390105, version, IPPROTO_TCP, 65535, version == 11000 ? 1 : 0);
    newest.insert(0, "{390105," + std::to_string(version) + ",6,65535}");
  }
  EXPECT_EQ(getenv(kVariable), newest.substr(0, 12188 + 22));
}

}  // namespace

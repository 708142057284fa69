#include "rpc/portmap/p_getprt.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include <cstdlib>

#include "rpc/client/rpcvarp.h"
#include "rpc/portmap/pmap_cache.h"
#include "tests/failing_malloc.h"
#include "tests/rpc_client.h"
#include "tests/rpc_server.h"
#include "tests/tcp_peer.h"

namespace {

using testing::IsEmpty;
using testing::SizeIs;

constexpr unsigned long kService = 390113;
constexpr char kVariable[] = "KIVENV_PMAPS";

struct Cached {
  unsigned long program, version, protocol, port;
  bool operator==(const Cached&) const = default;
};

// Starts each test like a new thread of a process that was handed `value`.
void start_with(const char* value) {
  rpc_t_varp* thread = get_rpc_t_varp();
  cleanup_mappers(thread);
  thread->port_cache_read = 0;
  value != nullptr ? setenv(kVariable, value, 1) : unsetenv(kVariable);
}

std::vector<Cached> cache() {
  std::vector<Cached> entries;
  for (const rpc_port_entry* entry = get_rpc_t_varp()->port_cache; entry != nullptr;
       entry = entry->next) {
    entries.push_back({entry->program, entry->version, entry->protocol, entry->port});
  }
  return entries;
}

class PortTest : public LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    start_with(nullptr);
  }

  static uint16_t ask(const char* address, unsigned long program, unsigned long version,
                      unsigned long protocol) {
    sockaddr_in server = lab::loopback(77);
    server.sin_addr.s_addr = inet_addr(address);
    uint16_t port = __brix_pmap_getport(&server, program, version, protocol);
    EXPECT_EQ(server.sin_port, 0);
    return port;
  }
};

TEST_F(PortTest, TheLastResortIsAskedLast) {
  lab::RpcServer own(kOwnMapperPort, "127.0.0.1", lab::port_mapper(0));
  pmap_fallback([](unsigned long program, unsigned long version, unsigned long protocol) {
    return static_cast<uint16_t>(program * 100 + version * 10 + protocol);
  });
  for (uint16_t registered : {uint16_t{0}, uint16_t{65535}}) {
    lab::RpcServer standard(kStandardMapperPort, "127.0.0.1", lab::port_mapper(registered));
    EXPECT_EQ(ask("127.0.0.1", 3, 4, IPPROTO_UDP), registered != 0 ? registered : 357);
    EXPECT_THAT(standard.requests(), SizeIs(1));
  }
  pmap_fallback(nullptr);
}

TEST_F(PortTest, WhatTheEnvironmentKnowsHoldsForThisHostAlone) {
  lab::RpcServer own(7938, "127.0.0.1", lab::port_mapper(5));
  lab::RpcServer remote(7938, "127.0.0.2", lab::port_mapper(6));
  start_with("{390113,2,17,7937}{390113,3,17,0}");
  EXPECT_EQ(ask("127.0.0.1", kService, 2, IPPROTO_UDP), 7937);
  EXPECT_THAT(own.requests(), IsEmpty());
  for (int i = 0; i < 2; ++i) EXPECT_EQ(ask("127.0.0.2", kService, 2, IPPROTO_UDP), 6);
  EXPECT_THAT(remote.requests(), SizeIs(2));
  EXPECT_EQ(ask("127.0.0.1", kService, 1, IPPROTO_UDP), 5);
  EXPECT_EQ(ask("127.0.0.1", kService, 3, IPPROTO_UDP), 5);
  EXPECT_THAT(cache(), SizeIs(2));  // nothing over UDP is added
  disable_cacheable_pmap();
  EXPECT_EQ(ask("127.0.0.1", kService, 2, IPPROTO_UDP), 5);
  populate_pmaps(kService, 2, IPPROTO_TCP, 10, 1);
  EXPECT_THAT(cache(), SizeIs(2));
  get_rpc_p_varp()->pmap_cache_off = 0;  // there is no other way back
}

TEST_F(PortTest, TheOwnMappersAnswerIsKept) {
  {
    lab::TcpPeer mapper(
        [](lab::TcpConnection& connection) {
          const std::string request = connection.read_record().value_or("");
          connection.send(lab::fragment(lab::success_to(request, "00000007")));
        },
        kOwnMapperPort);
    EXPECT_EQ(ask("127.0.0.1", kService, 2, IPPROTO_TCP), 7);
  }
  EXPECT_EQ(ask("127.0.0.1", kService, 2, IPPROTO_TCP), 7) << "nobody is there to ask";
  EXPECT_EQ(getenv(kVariable), nullptr);
}

TEST_F(PortTest, GroupsOfTheEnvironment) {
  const struct {
    const char* value;
    std::vector<Cached> entries;
  } cases[] = {
      {"{1,2,3,4", {}},
      {"1,2,3,4}", {}},
      {"{1,2,3,4}x{5,6,7,8}", {{1, 2, 3, 4}}},
      {"{1,2,3,4}{1,2,3,9}", {{1, 2, 3, 9}}},
      {"{1,2,3}{4,5,6,7}", {{1, 2, 3, 5}}},
      {"{,b, -1,+2x,3}", {{0, 0, ~0UL, 2}}},
      {"{99999999999999999999,0,0,0}", {{0x7FFFFFFFFFFFFFFF, 0, 0, 0}}},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.value);
    start_with(test.value);
    (void)pmap_cached_port(0, 1, 1);
    EXPECT_EQ(cache(), test.entries);
    EXPECT_STREQ(getenv(kVariable), test.value);
  }
}

TEST_F(PortTest, CacheAndExport) {
  get_rpc_t_varp();  // the blocks wait for their memory
  get_rpc_p_varp();
  {
    FailingMalloc failing(0);
    populate_pmaps(kService, 2, IPPROTO_TCP, 10, 0);
  }
  EXPECT_THAT(cache(), IsEmpty());
  populate_pmaps(kService, 2, IPPROTO_TCP, 10, 0);
  populate_pmaps(390103, 1, IPPROTO_TCP, 11, 0);
  populate_pmaps(kService, 2, IPPROTO_UDP, 12, 1);
  populate_pmaps(100003, 2, IPPROTO_TCP, 13, 1);
  add_pamp_to_env(kService, 3);
  EXPECT_EQ(getenv(kVariable), nullptr) << "of nothing that is kept";
  populate_pmaps(kService, 2, IPPROTO_TCP, 14, 1);
  EXPECT_STREQ(getenv(kVariable), "{390103,1,6,11}{390113,2,6,14}");
  populate_pmaps(kService, 2, IPPROTO_TCP, 0, 0);
  add_pamp_to_env(kService, 2);
  EXPECT_STREQ(getenv(kVariable), "{390103,1,6,11}{390113,2,6,0}");

  // As much as fits; the group that passes 12188 bytes is the last.
  for (unsigned long version = 1; version <= 1000; ++version) {
    populate_pmaps(390105, version + 1000, IPPROTO_TCP, 65535, 0);
  }
  populate_pmaps(kService, 2, IPPROTO_TCP, 14, 1);
  std::string value = getenv(kVariable);
  constexpr size_t kGroup = sizeof "{390105,2000,6,65535}" - 1;
  EXPECT_EQ(value.size(), (12188 / kGroup + 1) * kGroup);
  EXPECT_TRUE(value.starts_with("{390105,2000,6,65535}{390105,1999,6,65535}"));
}

}  // namespace

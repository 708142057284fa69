#include "rpc/portmap/p_getprt.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include <array>
#include <climits>
#include <cstdlib>

#include "rpc/handle/rpcvarp.h"
#include "rpc/portmap/pmap_cache.h"
#include "tests/fakes.h"
#include "tests/rpc_client.h"
#include "tests/rpc_server.h"

namespace {

using machine::RpcServer;
using testing::IsEmpty;
using testing::SizeIs;

constexpr unsigned long kService = 390113;
constexpr char kVariable[] = "KIVENV_PMAPS";

// Starts each test like a new thread of a process that was handed `value`.
void start_with(const char* value) {
  rpc_t_varp* thread = get_rpc_t_varp();
  cleanup_mappers(thread);
  thread->port_cache_read = false;
  value != nullptr ? setenv(kVariable, value, 1) : unsetenv(kVariable);
}

class PortTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!machine::skip_without_ports()) start_with(nullptr);
  }

  static uint16_t ask(const char* address, unsigned long program, unsigned long version,
                      unsigned long protocol) {
    sockaddr_in server = machine::loopback(77);
    server.sin_addr.s_addr = inet_addr(address);
    uint16_t port = __brix_pmap_getport(&server, program, version, protocol);
    EXPECT_EQ(server.sin_port, 0);
    return port;
  }
};

TEST_F(PortTest, TheLastResortIsAskedLast) {
  RpcServer own(7938, "127.0.0.1", machine::port_mapper(0));
  const rpc_createerr& error = *__get_rpc_createerr();
  pmap_fallback([](unsigned long program, unsigned long version, unsigned long protocol) {
    return static_cast<uint16_t>(program * 100 + version * 10 + protocol);
  });
  for (uint16_t registered : {uint16_t{0}, uint16_t{65535}}) {
    RpcServer standard(111, "127.0.0.1", machine::port_mapper(registered));
    rpc_set_createerr(RPC_SUCCESS, 0);
    EXPECT_EQ(ask("127.0.0.1", 3, 4, IPPROTO_UDP), registered != 0 ? registered : 357);
    EXPECT_TRUE(error.status == RPC_PROGNOTREGISTERED && error.cause.error_number == 0);
    ASSERT_THAT(standard.requests(), SizeIs(1));
    EXPECT_EQ(to_hex(standard.requests()[0].substr(4)),
              "0000000000000002000186A0000000020000000300000000000000000000000000000000"
              "00000003000000040000001100000000");
  }
  pmap_fallback(nullptr);
  EXPECT_TRUE(machine::equal(fakes::last_wait, {25, 0}));
}

TEST_F(PortTest, WhatTheEnvironmentKnowsHoldsForThisHostAlone) {
  RpcServer own(7938, "127.0.0.1", machine::port_mapper(5));
  RpcServer remote(7938, "127.0.0.2", machine::port_mapper(6));
  start_with("{390113,2,17,7937}{390113,3,17,0}");
  const std::vector<fakes::Interface> there = {{1, "127.0.0.3"}};
  fakes::interfaces = &there;
  for (const char* address : {"127.0.0.3", "127.0.0.1"}) {
    EXPECT_EQ(ask(address, kService, 2, IPPROTO_UDP), 7937) << address;
  }
  fakes::interfaces = nullptr;
  EXPECT_THAT(own.requests(), IsEmpty());
  for (int i = 0; i < 2; ++i) EXPECT_EQ(ask("127.0.0.2", kService, 2, IPPROTO_UDP), 6);
  EXPECT_THAT(remote.requests(), SizeIs(2));
  EXPECT_EQ(ask("127.0.0.1", kService, 1, IPPROTO_UDP), 5);
  EXPECT_EQ(ask("127.0.0.1", kService, 3, IPPROTO_UDP), 5);
  disable_cacheable_pmap();
  EXPECT_EQ(ask("127.0.0.1", kService, 2, IPPROTO_UDP), 5);
  populate_pmaps(kService, 2, IPPROTO_TCP, 10, 1);
  get_rpc_p_varp()->pmap_cache_off = false;  // there is no other way back
  EXPECT_EQ(pmap_cached_port(kService, 2, IPPROTO_TCP), 0U) << "not added while it was off";
  EXPECT_EQ(pmap_cached_port(kService, 1, IPPROTO_UDP), 0U) << "nothing over UDP is added";
}

// It answers without asking anybody.
TEST_F(PortTest, ARememberedPortCountsBeforeItIsCutTo16Bits) {
  RpcServer own(7938, "127.0.0.1", machine::port_mapper(5));
  start_with("{7,1,17,65536}{7,2,17,65543}");
  EXPECT_EQ(ask("127.0.0.1", 7, 1, IPPROTO_UDP), 0);
  EXPECT_EQ(ask("127.0.0.1", 7, 2, IPPROTO_UDP), 7);
  EXPECT_THAT(own.requests(), IsEmpty());
}

TEST_F(PortTest, TheOwnMappersAnswerIsKept) {
  for (auto [host, program, kept] : {std::tuple("127.0.0.2", kService, 0),
                                     {"127.0.0.1", kService, 7},
                                     {"127.0.0.1", 100003UL, 0}}) {
    std::optional<RpcServer> mapper;
    mapper.emplace(kOwnMapperPort, host, machine::port_mapper(7), SOCK_STREAM);
    EXPECT_EQ(ask(host, program, 2, IPPROTO_TCP), 7);
    mapper.reset();
    EXPECT_EQ(ask("127.0.0.1", program, 2, IPPROTO_TCP), kept) << "of this host alone";
  }
  EXPECT_EQ(__get_rpc_createerr()->status, RPC_SYSTEMERROR) << "nobody is there to ask";
  EXPECT_EQ(getenv(kVariable), nullptr);
}

TEST_F(PortTest, GroupsOfTheEnvironment) {
  const std::tuple<const char*, std::array<unsigned long, 3>, unsigned long> cases[] = {
      {"{1,2,3,4", {1, 2, 3}, 0},
      {"1,2,3,4}", {1, 2, 3}, 0},
      {"{1,2,3,4}x{5,6,7,8}", {1, 2, 3}, 4},
      {"{1,2,3,4}x{5,6,7,8}", {5, 6, 7}, 0},
      {"{1,2,3,4}{1,2,3,9}", {1, 2, 3}, 9},
      {"{1,2,3,4}{1,2,4,5}{1,3,3,6}{2,2,3,7}", {1, 2, 3}, 4},
      {"{1,2,3}{4,5,6,7}", {1, 2, 3}, 5},
      {"{,b, -1,+2x,3}", {0, 0, ULONG_MAX}, 2},
      {"{99999999999999999999,0,0,1}", {LONG_MAX, 0, 0}, 1}};
  for (const auto& [value, key, port] : cases) {
    start_with(value);
    EXPECT_EQ(pmap_cached_port(key[0], key[1], key[2]), port) << value;
  }
}

TEST_F(PortTest, CacheAndExport) {
  get_rpc_p_varp();  // the block waits for its memory
  {
    fakes::FailingMalloc failing(0);
    populate_pmaps(kService, 2, IPPROTO_TCP, 10, 0);
  }
  for (unsigned program :
       {390113U, 390103U, 390109U, 390110U, 390107U, 390105U, 390104U, 100003U}) {
    populate_pmaps(program, 2, IPPROTO_TCP, 10, 0);
    populate_pmaps(program, 3, IPPROTO_UDP, 10, 1);
  }
  add_pamp_to_env(kService, 3);
  EXPECT_EQ(getenv(kVariable), nullptr) << "of nothing that is kept";
  for (unsigned port : {14U, 0U}) {
    populate_pmaps(kService, 2, IPPROTO_TCP, port, 0);
    add_pamp_to_env(kService, 2);
    const std::string all =
        "{390105,2,6,10}{390107,2,6,10}{390110,2,6,10}{390109,2,6,10}{390103,2,6,10}{390113,2,6,";
    EXPECT_EQ(getenv(kVariable), all + std::to_string(port) + "}");
  }
  // As much as fits, newest first; the group that passes 12188 bytes is the last.
  std::string newest;
  for (unsigned version = 1001; version <= 2000; ++version) {
    populate_pmaps(390105, version, IPPROTO_TCP, 65535, 0);
    newest.insert(0, "{390105," + std::to_string(version) + ",6,65535}");
  }
  populate_pmaps(kService, 2, IPPROTO_TCP, 14, 1);
  EXPECT_TRUE(getenv(kVariable) == newest.substr(0, (12188 / 21 + 1) * 21));
}

}  // namespace

#include "rpc/portmap/p_getprt.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include <cstdlib>

#include "rpc/client/rpcvarp.h"
#include "rpc/portmap/pmap_cache.h"
#include "tests/failing_calls.h"
#include "tests/failing_malloc.h"
#include "tests/rpc_client.h"
#include "tests/rpc_server.h"

namespace {

using lab::RpcServer;
using testing::IsEmpty;
using testing::SizeIs;

constexpr unsigned long kService = 390113;
constexpr char kVariable[] = "KIVENV_PMAPS";

// Starts each test like a new thread of a process that was handed `value`.
void start_with(const char* value) {
  rpc_t_varp* thread = get_rpc_t_varp();
  cleanup_mappers(thread);
  thread->port_cache_read = 0;
  value != nullptr ? setenv(kVariable, value, 1) : unsetenv(kVariable);
}

// The cache in the form of the variable.
std::string cache() {
  std::string entries;
  for (const rpc_port_entry* entry = get_rpc_t_varp()->port_cache; entry != nullptr;
       entry = entry->next) {
    char separator = '{';
    for (unsigned long number : {entry->program, entry->version, entry->protocol, entry->port}) {
      entries += std::exchange(separator, ',') + std::to_string(number);
    }
    entries += '}';
  }
  return entries;
}

class PortTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!lab::skip_without_ports()) start_with(nullptr);
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
  RpcServer own(7938, "127.0.0.1", lab::port_mapper(0));
  pmap_fallback([](unsigned long program, unsigned long version, unsigned long protocol) {
    return static_cast<uint16_t>(program * 100 + version * 10 + protocol);
  });
  for (uint16_t registered : {uint16_t{0}, uint16_t{65535}}) {
    RpcServer standard(111, "127.0.0.1", lab::port_mapper(registered));
    EXPECT_EQ(ask("127.0.0.1", 3, 4, IPPROTO_UDP), registered != 0 ? registered : 357);
    ASSERT_THAT(standard.requests(), SizeIs(1));
    EXPECT_EQ(to_hex(standard.requests()[0].substr(4)),
              "0000000000000002000186A0000000020000000300000000000000000000000000000000"
              "00000003000000040000001100000000");
  }
  pmap_fallback(nullptr);
  const timeval all = {25, 0};
  EXPECT_TRUE(timercmp(&failing_calls::last_wait, &all, ==));
}

TEST_F(PortTest, WhatTheEnvironmentKnowsHoldsForThisHostAlone) {
  RpcServer own(7938, "127.0.0.1", lab::port_mapper(5));
  RpcServer remote(7938, "127.0.0.2", lab::port_mapper(6));
  start_with("{390113,2,17,7937}{390113,3,17,0}");
  EXPECT_EQ(ask("127.0.0.1", kService, 2, IPPROTO_UDP), 7937);
  EXPECT_THAT(own.requests(), IsEmpty());
  for (int i = 0; i < 2; ++i) EXPECT_EQ(ask("127.0.0.2", kService, 2, IPPROTO_UDP), 6);
  EXPECT_THAT(remote.requests(), SizeIs(2));
  EXPECT_EQ(ask("127.0.0.1", kService, 1, IPPROTO_UDP), 5);
  EXPECT_EQ(ask("127.0.0.1", kService, 3, IPPROTO_UDP), 5);
  const std::string before = cache();
  EXPECT_EQ(before, "{390113,3,17,0}{390113,2,17,7937}") << "nothing over UDP is added";
  disable_cacheable_pmap();
  EXPECT_EQ(ask("127.0.0.1", kService, 2, IPPROTO_UDP), 5);
  populate_pmaps(kService, 2, IPPROTO_TCP, 10, 1);
  EXPECT_EQ(cache(), before);
  get_rpc_p_varp()->pmap_cache_off = 0;  // there is no other way back
}

TEST_F(PortTest, TheOwnMappersAnswerIsKept) {
  for (unsigned long program : {kService, 100003UL}) {
    std::optional<RpcServer> mapper;
    mapper.emplace(kOwnMapperPort, "127.0.0.1", lab::port_mapper(7), SOCK_STREAM);
    EXPECT_EQ(ask("127.0.0.1", program, 2, IPPROTO_TCP), 7);
    mapper.reset();
    EXPECT_EQ(ask("127.0.0.1", program, 2, IPPROTO_TCP), program == kService ? 7 : 0);
  }
  EXPECT_EQ(__get_rpc_createerr()->status, RPC_SYSTEMERROR) << "nobody is there to ask";
  EXPECT_EQ(getenv(kVariable), nullptr);
}

TEST_F(PortTest, GroupsOfTheEnvironment) {
  const std::pair<const char*, const char*> cases[] = {
      {"{1,2,3,4", ""},
      {"1,2,3,4}", ""},
      {"{1,2,3,4}x{5,6,7,8}", "{1,2,3,4}"},
      {"{1,2,3,4}{1,2,3,9}", "{1,2,3,9}"},
      {"{1,2,3,4}{1,2,4,5}{1,3,3,6}{2,2,3,7}", "{2,2,3,7}{1,3,3,6}{1,2,4,5}{1,2,3,4}"},
      {"{1,2,3}{4,5,6,7}", "{1,2,3,5}"},
      {"{,b, -1,+2x,3}", "{0,0,18446744073709551615,2}"},
      {"{99999999999999999999,0,0,0}", "{9223372036854775807,0,0,0}"}};
  for (const auto& [value, entries] : cases) {
    start_with(value);
    EXPECT_EQ(pmap_cached_port(0, 1, 1), 0U);
    EXPECT_EQ(cache(), entries) << value;
    EXPECT_STREQ(getenv(kVariable), value);
  }
}

TEST_F(PortTest, CacheAndExport) {
  get_rpc_t_varp();  // the blocks wait for their memory
  get_rpc_p_varp();
  {
    FailingMalloc failing(0);
    populate_pmaps(kService, 2, IPPROTO_TCP, 10, 0);
  }
  EXPECT_EQ(cache(), "");
  for (unsigned program :
       {390113U, 390103U, 390109U, 390110U, 390107U, 390105U, 390104U, 100003U}) {
    populate_pmaps(program, 2, IPPROTO_TCP, 10, 0);
    populate_pmaps(program, 3, IPPROTO_UDP, 10, 1);
  }
  add_pamp_to_env(kService, 3);
  EXPECT_EQ(getenv(kVariable), nullptr) << "of nothing that is kept";
  populate_pmaps(kService, 2, IPPROTO_TCP, 14, 1);
  EXPECT_EQ(cache(),
            "{390105,2,6,10}{390107,2,6,10}{390110,2,6,10}{390109,2,6,10}{390103,2,6,10}"
            "{390113,2,6,14}");
  EXPECT_EQ(getenv(kVariable), cache());
  populate_pmaps(kService, 2, IPPROTO_TCP, 0, 0);
  add_pamp_to_env(kService, 2);
  EXPECT_EQ(getenv(kVariable), cache());

  // As much as fits; the group that passes 12188 bytes is the last.
  for (unsigned long version = 1001; version <= 2000; ++version) {
    populate_pmaps(390105, version, IPPROTO_TCP, 65535, 0);
  }
  populate_pmaps(kService, 2, IPPROTO_TCP, 14, 1);
  constexpr size_t kGroup = sizeof "{390105,2000,6,65535}" - 1;
  EXPECT_EQ(getenv(kVariable), cache().substr(0, (12188 / kGroup + 1) * kGroup));
}

}  // namespace

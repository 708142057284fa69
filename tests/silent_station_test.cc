// Port mappers of every kind. The waits for silent ones are fixed, so all cases run at
// once.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include "rpc/c_gen.h"
#include "rpc/client/rpcvarp.h"
#include "tests/rpc_server.h"

namespace {

using namespace std::chrono_literals;
using SilentStationTest = LabTest;

TEST_F(SilentStationTest, EachMapperGetsOneDatagramAnd25Seconds) {
  const lab::RpcServer::Script strangers_reply = [](std::string request) {
    request[0] ^= 1;
    return std::vector{lab::success_to(request, "00000017")};
  };
  const lab::RpcServer::Script garbage = [](const std::string& request) {
    return std::vector{lab::reply_to(request, "00000001 00000000 7FFFFFFF")};
  };
  const auto has_it = lab::port_mapper(4711), has_none = lab::port_mapper(0);
  const struct {
    std::string address;                   // on the second machine
    lab::RpcServer::Script own, standard;  // null: nobody listens
    clnt_stat status, cause;               // of the creation error
    std::chrono::seconds wait;             // at least
    bool registered = false;
  } stations[] = {
      {"10.9.0.2", lab::silence, lab::silence, RPC_PMAPFAILURE, RPC_TIMEDOUT, 50s},
      {"10.9.0.3", lab::silence, has_it, RPC_PMAPFAILURE, RPC_TIMEDOUT, 25s, true},
      {"10.9.0.4", strangers_reply, has_none, RPC_PROGNOTREGISTERED, RPC_SUCCESS, 25s},
      // Nobody listens: an ICMP message comes back, and changes nothing.
      {"10.9.0.5", nullptr, nullptr, RPC_PMAPFAILURE, RPC_TIMEDOUT, 50s},
      {"10.9.0.6", has_it, nullptr, RPC_SUCCESS, RPC_SUCCESS, 0s, true},
      {"10.9.0.7", has_none, has_none, RPC_PROGNOTREGISTERED, RPC_SUCCESS, 0s},
      {"10.9.0.8", garbage, garbage, RPC_PMAPFAILURE, RPC_CANTDECODERES, 0s},
  };
  std::vector<std::string> addresses;
  for (const auto& station : stations) addresses.push_back(station.address);
  std::vector<std::unique_ptr<lab::RpcServer>> mappers;
  lab::on_second_host(addresses, [&] {
    for (const auto& station : stations) {
      for (const auto& [port, script] : {std::pair(7938, station.own), {111, station.standard}}) {
        if (script == nullptr) continue;
        mappers.push_back(std::make_unique<lab::RpcServer>(port, station.address, script));
      }
    }
  });
  std::vector<std::jthread> runs;
  for (const auto& station : stations) {
    runs.emplace_back([&station] {
      SCOPED_TRACE(station.address);
      const auto start = std::chrono::steady_clock::now();
      CLIENT* client = __brix_clnt_create(station.address.c_str(), 100122, 0, "udp");
      EXPECT_GE(std::chrono::steady_clock::now() - start, station.wait);
      EXPECT_EQ(client != nullptr, station.registered);
      if (client != nullptr) client->ops->destroy(client);
      EXPECT_EQ(__get_rpc_createerr()->status, station.status);
      EXPECT_EQ(__get_rpc_createerr()->cause.status, station.cause);
    });
  }
  runs.clear();
  for (const auto& mapper : mappers) EXPECT_EQ(mapper->requests().size(), 1U);
}

}  // namespace

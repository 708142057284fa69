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
  // Stations on the second machine, asked by the command and through the interface.
  const struct {
    std::string address;
    lab::RpcServer::Script own, standard;  // null: nobody listens
    bool registered;
    clnt_stat status, cause;    // of the creation error
    std::chrono::seconds wait;  // at least
  } stations[] = {
      {"10.9.0.2", lab::silence, lab::silence, false, RPC_PMAPFAILURE, RPC_TIMEDOUT, 50s},
      {"10.9.0.3", lab::silence, has_it, true, RPC_PMAPFAILURE, RPC_TIMEDOUT, 25s},
      {"10.9.0.4", strangers_reply, has_none, false, RPC_PROGNOTREGISTERED, RPC_SUCCESS, 25s},
      // Nobody listens: an ICMP message comes back, and changes nothing.
      {"10.9.0.5", nullptr, nullptr, false, RPC_PMAPFAILURE, RPC_TIMEDOUT, 50s},
      {"10.9.0.6", has_it, nullptr, true, RPC_SUCCESS, RPC_SUCCESS, 0s},
      {"10.9.0.7", has_none, has_none, false, RPC_PROGNOTREGISTERED, RPC_SUCCESS, 0s},
      {"10.9.0.8", garbage, garbage, false, RPC_PMAPFAILURE, RPC_CANTDECODERES, 0s},
  };
  std::vector<std::string> addresses;
  std::string hosts = lab::read_file("/etc/hosts");
  for (const auto& station : stations) {
    addresses.push_back(station.address);
    hosts += station.address + " host" + station.address + "\n";
  }
  lab::write_file("/etc/hosts", hosts);
  std::vector<std::unique_ptr<lab::RpcServer>> mappers;
  std::vector<std::unique_ptr<lab::UdpReceiver>> managers;
  lab::on_second_host(addresses, [&] {
    for (const auto& station : stations) {
      managers.push_back(std::make_unique<lab::UdpReceiver>(162, station.address));
      for (const auto& [port, script] : {std::pair(7938, station.own), {111, station.standard}}) {
        if (script == nullptr) continue;
        mappers.push_back(std::make_unique<lab::RpcServer>(port, station.address, script));
      }
    }
  });
  const std::string line = std::string(38, 'a') + " " + std::string(20, 'b');
  std::vector<std::jthread> runs;
  for (const auto& station : stations) {
    runs.emplace_back([&station, &line] {
      auto start = std::chrono::steady_clock::now();
      lab::Outcome outcome = lab::run({{KIVTRAP, station.address}, line + "\n"});
      EXPECT_EQ(outcome.out + outcome.err + std::to_string(outcome.status), "0") << station.address;
      EXPECT_GE(std::chrono::steady_clock::now() - start, station.wait) << station.address;
    });
    runs.emplace_back([&station] {
      CLIENT* client = __brix_clnt_create(station.address.c_str(), 100122, 0, "udp");
      EXPECT_EQ(client != nullptr, station.registered) << station.address;
      if (client != nullptr) client->ops->destroy(client);
      EXPECT_EQ(__get_rpc_createerr()->status, station.status) << station.address;
      EXPECT_EQ(__get_rpc_createerr()->cause.status, station.cause) << station.address;
    });
  }
  runs.clear();
  // One datagram for each of the two.
  for (const auto& mapper : mappers) EXPECT_EQ(mapper->requests().size(), 2U);
  for (size_t i = 0; i < managers.size(); ++i) {
    const std::string trap = managers[i]->receive().value_or("");
    EXPECT_EQ(trap.substr(trap.size() - 21),
              (stations[i].registered ? "\n" : " ") + line.substr(39));
  }
}

}  // namespace

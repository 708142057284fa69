// Own addresses, on the interfaces of the lab.
#include "liblocal/hosts/get_myad.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstring>

#include "tests/failing_malloc.h"
#include "tests/lab.h"
#include "tests/printed.h"
#include "tests/stand_ins.h"

namespace {

int is_mine(const char* text) {
  const in_addr asked = {inet_addr(text)};
  return is_myaddr(AF_INET, &asked, sizeof asked);
}

std::string first_address() {
  sockaddr_in found{};
  __brix_get_myaddress(&found);
  EXPECT_EQ(found.sin_port, 0);
  return inet_ntoa(found.sin_addr);
}

// The slots in use, in order; the ones behind them must be zero.
std::string listed() {
  sockaddr_in* table = nullptr;
  int32_t count = get_myaddrs(&table);
  std::string all;
  for (int32_t i = 0; i < count; ++i) {
    EXPECT_EQ(table[i].sin_family, AF_INET);
    all += std::string(inet_ntoa(table[i].sin_addr)) + " ";
  }
  const sockaddr_in unused{};
  for (int32_t i = count; i < kMaxLocalAddresses; ++i) {
    EXPECT_EQ(memcmp(&table[i], &unused, sizeof unused), 0) << i;
  }
  return all;
}

// Runs `ip` with each line of `commands`.
void ip(const std::string& commands) {
  lab::Command command;
  command.words = {"ip", "-batch", "-"};
  command.input = commands;
  lab::Outcome outcome = lab::run(command);
  ASSERT_EQ(outcome.status, 0) << outcome.err;
}

class AddressTest : public LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    if (IsSkipped()) return;
    ip("link add kiv0 type veth peer name kiv1\n"
       "address add 10.7.0.1/24 dev kiv0\n"
       "address add 10.7.0.2/24 dev kiv0 label kiv0:x\n"
       "address add 10.8.0.1/24 dev kiv1\n"
       "link set kiv0 up\n");
  }
  void TearDown() override {
    if (!IsSkipped()) ip("link del kiv0\nlink set lo up\n");
    stand_ins::refused_request = 0;
  }
};

TEST_F(AddressTest, InterfacesComeAndGo) {
  EXPECT_EQ(is_mine("0.0.0.0"), 1) << "before any match";
  EXPECT_EQ(listed(), "127.0.0.1 10.7.0.1 10.7.0.2 ");
  EXPECT_EQ(is_mine("10.8.0.1"), 0) << "down";
  EXPECT_EQ(is_mine("10.7.0.2"), 1);
  EXPECT_EQ(first_address(), "10.7.0.1");
  ip("link set kiv1 up\nlink set kiv0 down\n");
  EXPECT_EQ(listed(), "127.0.0.1 10.8.0.1 ");
  EXPECT_EQ(is_mine("10.7.0.2"), 1) << "the last match";
  EXPECT_EQ(is_mine("10.8.0.1"), 1);
  EXPECT_EQ(is_mine("10.7.0.2"), 0);
  EXPECT_EQ(is_myaddr(AF_INET6, &in6addr_any, sizeof in6addr_any), 0);
}

TEST_F(AddressTest, LoopbackOnlyAndNothing) {
  ip("link set kiv0 down\n");
  EXPECT_EQ(first_address(), "127.0.0.1");
  ip("link set lo down\n");
  EXPECT_EQ(listed(), "");
  EXPECT_EQ(first_address(), "0.0.0.0") << "unchanged";
  ip("address del 127.0.0.1/8 dev lo\nlink del kiv0\n");
  EXPECT_EQ(printed(0, [] { EXPECT_EQ(first_address(), "0.0.0.0"); }),
            "kivtrap: No network interfaces detected!");
  EXPECT_EQ(listed(), "");
  ip("link add kiv0 type veth peer name kiv1\naddress add 127.0.0.1/8 dev lo\n");
}

TEST_F(AddressTest, Thousands) {
  sockaddr_in* table = nullptr;
  ip("address del 10.8.0.1/24 dev kiv1\n");  // down, but it would take a place in the list
  // Two on the veth and one on loopback are there already.
  int added = 0;
  for (auto [end, wanted] : {std::pair{1024, 1027}, {2045, 2048}, {2046, 2048}}) {
    std::string lines;
    for (; added < end; ++added) {
      lines += "address add 10.20." + std::to_string(added / 250) + "." +
               std::to_string(added % 250 + 1) + "/32 dev kiv0\n";
    }
    ip(lines);
    EXPECT_EQ(get_myaddrs(&table), wanted);
  }
  ip("link set kiv0 down\n");
  EXPECT_EQ(listed(), "127.0.0.1 ");
}

TEST_F(AddressTest, WhatFails) {
  sockaddr_in *table = nullptr, *again = nullptr;
  EXPECT_EQ(get_myaddrs(&table), 3);
  const std::tuple<unsigned long, int, const char*> cases[] = {
      {SIOCGIFCONF, EINVAL, "set_ifconf_buffer: ioctl(SIOCGIFNUM) failed with 22\n"},
      {SIOCGIFCONF, EIO, "set_ifconf_buffer: ioctl(SIOCGIFCONF): Input/output error\n"},
      {SIOCGIFFLAGS, ENODEV, ""},
  };
  for (const auto& [request, error, told] : cases) {
    stand_ins::refused_request = request;
    stand_ins::refusal = error;
    const std::string all = printed(1, [&] { EXPECT_EQ(get_myaddrs(&again), 0); });
    EXPECT_NE(all.find(told), std::string::npos) << all;
  }
  const std::string told = printed(0, [] { EXPECT_EQ(first_address(), "0.0.0.0"); });
  EXPECT_TRUE(told.starts_with("get_myaddress: flags ioctl: No such device\n")) << told;
  stand_ins::refused_request = 0;

  auto without_memory = [&] {
    FailingMalloc failing(0);
    EXPECT_EQ(get_myaddrs(&again), 0);
  };
  printed(0, without_memory);
  auto without_descriptors = [&] {
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none = {0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(get_myaddrs(&again), -1);
    EXPECT_EQ(first_address(), "0.0.0.0");
    setrlimit(RLIMIT_NOFILE, &before);
  };
  EXPECT_EQ(printed(0, without_descriptors), "get_myaddress: socket: Too many open files\n");
  EXPECT_EQ(again, table);
}

}  // namespace

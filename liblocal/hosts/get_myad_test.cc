// Own addresses, on interfaces that the tests make up.
#include "liblocal/hosts/get_myad.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstring>

#include "tests/printed.h"
#include "tests/stand_ins.h"

using namespace stand_ins;

namespace {

// What `work` prints while the machine has the interfaces `there`.
std::string printed_on(const std::vector<ifreq>& there, auto work) {
  interfaces = &there;
  std::string told = printed(1, work);
  interfaces = nullptr;
  counting_error = listing_error = 0;
  return told;
}

std::string first_address() {
  sockaddr_in found{};
  __brix_get_myaddress(&found);
  return inet_ntoa(found.sin_addr);
}

// The slots in use, in order; the ones behind them must be zero.
std::string listed() {
  sockaddr_in* table = nullptr;
  const int32_t count = get_myaddrs(&table);
  std::string all;
  for (int32_t i = 0; i < count; ++i) all += std::string(inet_ntoa(table[i].sin_addr)) + " ";
  for (int32_t i = count; i < 2048; ++i) EXPECT_EQ(table[i].sin_family, AF_UNSPEC) << i;
  return all;
}

TEST(OwnAddresses, OfInterfacesThatAreUp) {
  const char* none = "kivtrap: No network interfaces detected!";
  const char* no_flags = "get_myaddress: flags ioctl: No such device\n";
  const struct {
    const char *there, *table, *first, *told;
  } cases[] = {
      {"9 127.0.0.1 2 1 10.7.0.1 2 1 10.7.0.2 2", "127.0.0.1 10.7.0.1 10.7.0.2 ", "10.7.0.1", ""},
      {"0 10.8.0.1 2 9 127.0.0.1 2 9 127.0.0.2 2", "127.0.0.1 127.0.0.2 ", "127.0.0.2", ""},
      {"8 127.0.0.1 2 1 10.6.0.1 10 1 10.5.0.1 0", "10.6.0.1 ", "0.0.0.0", ""},
      {"-19 10.4.0.1 2 1 10.3.0.1 2", "10.3.0.1 ", "10.3.0.1", no_flags},
      {"", "", "0.0.0.0", none},
  };
  for (const auto& [there, table, first, told] : cases) {
    const std::vector<ifreq> all = made_up(there);
    EXPECT_EQ(printed_on(all, [wanted = table] { EXPECT_EQ(listed(), wanted); }), "");
    EXPECT_EQ(printed_on(all, [wanted = first] { EXPECT_EQ(first_address(), wanted); }), told);
  }
  EXPECT_NE(listed().find("127.0.0.1"), std::string::npos) << "those of the machine";
}

TEST(OwnAddresses, AsManyAsTheTableHolds) {
  for (unsigned there : {1U, 31U, 32U, 33U, 63U, 64U, 1024U, 1025U, 2047U, 2048U, 2049U}) {
    const std::vector all(there, made_up("1 10.1.0.1 2")[0]);
    auto list = [wanted = 9 * std::min(there, 2048U)] { EXPECT_EQ(listed().size(), wanted); };
    EXPECT_EQ(printed_on(all, list), "");
    counting_error = EIO;
    EXPECT_TRUE(printed_on(all, list).ends_with("ioctl(SIOCGIFNUM) failed with 5\n"));
  }
}

TEST(OwnAddresses, OneOfThem) {
  const std::vector<ifreq> early = made_up("1 10.7.0.1 2 1 10.7.0.2 2 1 10.7.0.3 10");
  const std::vector<ifreq> late = made_up("1 10.7.0.2 2");
  auto is_mine = [](const char* text) {
    const in_addr asked = {inet_addr(text)};
    return is_myaddr(AF_INET, &asked, 0) == 1;
  };
  auto in_child = [&] {  // a process that has matched nothing yet
    interfaces = &early;
    bool right = is_mine("0.0.0.0") && is_mine("10.7.0.2") && !is_mine("0.0.0.0") &&
                 !is_mine("10.7.0.3") && is_mine("10.7.0.1");
    interfaces = &late;
    right = right && is_mine("10.7.0.1") && is_mine("10.7.0.2") && !is_mine("10.7.0.1");
    _exit(right ? 0 : 1);
  };
  EXPECT_EXIT(in_child(), testing::ExitedWithCode(0), "") << "the last match is remembered";
  printed_on(early, [] {
    const char bytes[16] = {0, 0, 10, 7, 0, 3};
    for (auto [length, mine] : {std::pair{14, 1}, {6, 1}, {0, 1}, {15, 0}, {-1, 0}}) {
      EXPECT_EQ(is_myaddr(AF_INET6, bytes, length), mine) << length;
    }
    EXPECT_FALSE(is_myaddr(AF_INET6, "\0\0\12\7\0\1", 6) || is_myaddr(AF_UNIX, bytes, 0));
  });
}

TEST(OwnAddresses, WhatFails) {
  for (auto [error, told] :
       {std::pair{EINVAL, ""},
        {EIO, "set_ifconf_buffer: ioctl(SIOCGIFCONF): Input/output error\n"}}) {
    listing_error = error;
    EXPECT_EQ(printed_on(made_up("1 10.2.0.1 2"), [] { EXPECT_EQ(listed(), ""); }), told);
  }
  auto without_descriptors = [] {
    sockaddr_in* table = nullptr;
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit closed = {0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &closed);
    EXPECT_TRUE(get_myaddrs(&table) == -1 && table != nullptr);
    EXPECT_EQ(first_address(), "0.0.0.0");
    setrlimit(RLIMIT_NOFILE, &before);
  };
  EXPECT_EQ(printed(0, without_descriptors), "get_myaddress: socket: Too many open files\n");
}

}  // namespace

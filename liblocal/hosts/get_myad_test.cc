// This host's own addresses, on faked interfaces.
#include "liblocal/hosts/get_myad.h"

#include <arpa/inet.h>

#include <algorithm>

#include "tests/fakes.h"
#include "tests/work.h"

using namespace fakes;

namespace {

// The addresses of the table, then that of __brix_get_myaddress, and what is printed.
std::string ask(const std::vector<Interface>& there) {
  std::string answer;
  interfaces = &there;
  const std::string text = printed(1, [&answer] {
    sockaddr_in *table = nullptr, one = {};
    const int32_t count = get_myaddrs(&table);
    for (int32_t i = 0; i < count; ++i) answer += inet_ntoa(table[i].sin_addr) + std::string(" ");
    for (int32_t i = count; i < 2048; ++i) EXPECT_EQ(table[i].sin_family, AF_UNSPEC);
    __brix_get_myaddress(&one);
    answer += inet_ntoa(one.sin_addr);
  });
  interfaces = nullptr;
  return answer + text;
}

TEST(OwnAddresses, OfInterfacesThatAreUp) {
  const std::string failure = "set_ifconf_buffer: ioctl(SIOCGIFCONF): Input/output error\n";
  const std::string none = "kivtrap: No network interfaces detected!";
  const struct {
    std::vector<Interface> there;
    std::string answer;
    int listing_error = 0;
  } rows[] = {{{{9, "127.0.0.1"}, {1, "10.7.0.1"}, {1, "10.7.0.2"}},
               "127.0.0.1 10.7.0.1 10.7.0.2 10.7.0.1"},
              {{{0, "10.8.0.1"}, {9, "127.0.0.1"}}, "127.0.0.1 127.0.0.1"},
              {{{1, "10.6.0.1", AF_INET6}, {1, "10.5.0.1", AF_UNSPEC}}, "10.6.0.1 0.0.0.0"},
              {{{-ENODEV, "10.4.0.1"}}, "0.0.0.0get_myaddress: flags ioctl: No such device\n"},
              {{{1, "10.2.0.1"}}, "0.0.0.0" + failure + failure + none, EIO},
              {{{1, "10.2.0.1"}}, "0.0.0.0" + none, EINVAL}};
  for (const auto& row : rows) {
    listing_error = row.listing_error;
    EXPECT_EQ(ask(row.there), row.answer);
  }
  listing_error = 0;
}

TEST(OwnAddresses, AsManyAsTheTableHolds) {
  for (unsigned there : {32U, 1025U, 2049U}) {
    const std::string answer = ask(std::vector<Interface>(there, {1, "10.1.0.1"}));
    EXPECT_EQ(std::ranges::count(answer, ' '), std::min(there, 2048U));
  }
}

int is_mine(const char* text) {
  const in_addr asked = {inet_addr(text)};
  return is_myaddr(AF_INET, &asked, 0);
}

TEST(OwnAddresses, RememberTheLastMatch) {
  const std::vector<Interface> early = {{1, "10.7.0.1"}}, late = {{1, "10.7.0.2"}};
  interfaces = &early;
  EXPECT_EQ(is_mine("10.7.0.1"), 1);
  EXPECT_EQ(is_mine("0.0.0.0"), 1);
  interfaces = &late;
  EXPECT_EQ(is_mine("10.7.0.1"), 1);
  EXPECT_EQ(is_mine("10.7.0.2"), 1);
  EXPECT_EQ(is_mine("10.7.0.1"), 0);
  interfaces = nullptr;
}

// An interface's bytes are a port of 0, its address, and a 9 behind zeros.
TEST(OwnAddresses, OfOtherFamiliesAreBytes) {
  const std::vector<Interface> there = {{1, "10.7.0.1"}, {1, "10.7.0.2", AF_INET6}};
  const std::string bytes("\0\0\x0A\7\0\2\0\0\0\0\0\0\0\x9!", 15);
  interfaces = &there;
  EXPECT_EQ(is_myaddr(AF_INET6, bytes.data(), 14), 1);
  EXPECT_EQ(is_myaddr(AF_INET6, bytes.data(), 15), 0);
  EXPECT_EQ(is_myaddr(AF_INET6, bytes.data(), -1), 0);
  EXPECT_EQ(is_myaddr(AF_INET6, "!", 1), 0);
  interfaces = nullptr;
}

TEST(OwnAddresses, NoneWithoutADescriptor) {
  auto ask_both = [] {
    sockaddr_in *table = nullptr, one;
    const DescriptorLimit none(0);
    EXPECT_EQ(get_myaddrs(&table), -1);
    __brix_get_myaddress(&one);
  };
  EXPECT_EQ(printed(0, ask_both), "get_myaddress: socket: Too many open files\n");
}

}  // namespace

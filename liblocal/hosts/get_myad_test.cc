// This host's own addresses, on faked interfaces.
#include "liblocal/hosts/get_myad.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <algorithm>
#include <bit>

#include "tests/fakes.h"
#include "tests/work.h"

using namespace fakes;

namespace {

struct Answer {
  std::string table;  // the addresses of the table
  std::string one;    // that of __brix_get_myaddress
  std::string printed;
};

Answer ask(const std::vector<Interface>& there) {
  Answer answer;
  interfaces = &there;
  answer.printed = printed(1, [&answer] {
    sockaddr_in *table = nullptr, one = {};
    const int32_t count = get_myaddrs(&table);
    for (int32_t i = 0; i < count; ++i)
      answer.table += inet_ntoa(table[i].sin_addr) + std::string(" ");
    for (int32_t i = count; i < 2048; ++i) EXPECT_EQ(table[i].sin_family, AF_UNSPEC) << i;
    __brix_get_myaddress(&one);
    answer.one = inet_ntoa(one.sin_addr);
  });
  interfaces = nullptr;
  return answer;
}

TEST(OwnAddresses, OfInterfacesThatAreUp) {
  const struct {
    std::vector<Interface> there;
    std::string table, one, printed = {};
  } rows[] = {
      {{{9, "127.0.0.1"}, {1, "10.7.0.1"}, {1, "10.7.0.2"}},
       "127.0.0.1 10.7.0.1 10.7.0.2 ",
       "10.7.0.1"},
      {{{0, "10.8.0.1"}, {9, "127.0.0.1"}, {9, "127.0.0.2"}}, "127.0.0.1 127.0.0.2 ", "127.0.0.2"},
      {{{8, "127.0.0.1"}, {1, "10.6.0.1", AF_INET6}, {1, "10.5.0.1", AF_UNSPEC}},
       "10.6.0.1 ",
       "0.0.0.0"},
      {{{-ENODEV, "10.4.0.1"}}, "", "0.0.0.0", "get_myaddress: flags ioctl: No such device\n"},
      {{}, "", "0.0.0.0", "kivtrap: No network interfaces detected!"}};
  for (const auto& row : rows) {
    const Answer answer = ask(row.there);
    EXPECT_EQ(answer.table, row.table);
    EXPECT_EQ(answer.one, row.one);
    EXPECT_EQ(answer.printed, row.printed);
  }
}

TEST(OwnAddresses, NoneWithoutTheList) {
  const std::string none = "kivtrap: No network interfaces detected!";
  const std::string failure = "set_ifconf_buffer: ioctl(SIOCGIFCONF): Input/output error\n";
  listing_error = EINVAL;
  EXPECT_EQ(ask({{1, "10.2.0.1"}}).printed, none);
  listing_error = EIO;
  EXPECT_EQ(ask({{1, "10.2.0.1"}}).printed, failure + failure + none);
  listing_error = 0;
}

// When their number is known, the first list has room for them; else its room is doubled.
TEST(OwnAddresses, AsManyAsTheTableHolds) {
  for (unsigned count : {31U, 32U, 1025U, 2049U}) {
    SCOPED_TRACE(count);
    const std::vector<Interface> there(count, {1, "10.1.0.1"});
    EXPECT_EQ(ask(there).table.size(), 9 * std::min(count, 2048U));
    EXPECT_EQ(list_size, (count < 99 ? 2 * count : std::min(count, 2048U)) * sizeof(ifreq) + 1);
    counting_error = EIO;
    EXPECT_TRUE(ask(there).printed.ends_with("ioctl(SIOCGIFNUM) failed with 5\n"));
    EXPECT_EQ(list_size, std::clamp(std::bit_ceil(count + 1), 32U, 2048U) * sizeof(ifreq) + 1);
    counting_error = 0;
  }
}

int is_mine(const char* text) {
  const in_addr asked = {inet_addr(text)};
  return is_myaddr(AF_INET, &asked, 0);
}

TEST(OwnAddresses, RememberTheLastMatch) {
  const std::vector<Interface> early = {{1, "10.7.0.1"}, {1, "10.7.0.3", AF_INET6}};
  const std::vector<Interface> late = {{1, "10.7.0.2"}};
  interfaces = &early;
  EXPECT_EQ(is_mine("10.7.0.3"), 0);
  EXPECT_EQ(is_mine("10.7.0.1"), 1);
  EXPECT_EQ(is_mine("0.0.0.0"), 1);
  interfaces = &late;
  EXPECT_EQ(is_mine("10.7.0.1"), 1);
  EXPECT_EQ(is_mine("10.7.0.2"), 1);
  EXPECT_EQ(is_mine("10.7.0.1"), 0);
  interfaces = nullptr;
}

TEST(OwnAddresses, OfOtherFamiliesAreComparedAsBytes) {
  const std::vector<Interface> there = {{1, "10.7.0.3", AF_INET6}};
  interfaces = &there;
  const char bytes[16] = {0, 0, 10, 7, 0, 3, 0, 0, 0, 0, 0, 0, 0, 9};
  for (int length : {14, 0}) EXPECT_EQ(is_myaddr(AF_INET6, bytes, length), 1) << length;
  for (int length : {15, -1}) EXPECT_EQ(is_myaddr(AF_INET6, bytes, length), 0) << length;
  EXPECT_EQ(is_myaddr(AF_INET6, "\0\0\12\7\0\1", 6), 0);
  interfaces = nullptr;
}

TEST(OwnAddresses, NoneWithoutADescriptor) {
  auto without_descriptors = [] {
    sockaddr_in *table = nullptr, one = {};
    const DescriptorLimit none(0);
    EXPECT_EQ(get_myaddrs(&table), -1);
    EXPECT_NE(table, nullptr);
    __brix_get_myaddress(&one);
  };
  EXPECT_EQ(printed(0, without_descriptors), "get_myaddress: socket: Too many open files\n");
}

}  // namespace

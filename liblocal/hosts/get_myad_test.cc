#include "liblocal/hosts/get_myad.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <filesystem>

#include "tests/printed.h"
#include "tests/stand_ins.h"

using namespace stand_ins;
using std::filesystem::directory_iterator;

namespace {

// What `work` prints while the machine has the interfaces `there`, or asking for them fails.
std::string printed_on(const std::vector<ifreq>& there, int error, auto work) {
  interfaces = &there;
  listing_error = error;
  std::string told = printed(1, work);
  interfaces = nullptr;
  listing_error = 0;
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
  const std::string no_list = "set_ifconf_buffer: ioctl(SIOCGIFCONF): Input/output error\n";
  const std::string none = "kivtrap: No network interfaces detected!";
  // The addresses of the table, and then the one that stands for all.
  const std::tuple<const char*, int, std::string, std::string> cases[] = {
      {"9 127.0.0.1 2 1 10.7.0.1 2 1 10.7.0.2 2", 0, "127.0.0.1 10.7.0.1 10.7.0.2 10.7.0.1", ""},
      {"0 10.8.0.1 2 9 127.0.0.1 2 9 127.0.0.2 2", 0, "127.0.0.1 127.0.0.2 127.0.0.2", ""},
      {"8 127.0.0.1 2 1 10.6.0.1 10 1 10.5.0.1 0", 0, "10.6.0.1 0.0.0.0", ""},
      {"-19 10.4.0.1 2 1 10.3.0.1 2", 0, "10.3.0.1 10.3.0.1",
       "get_myaddress: flags ioctl: No such device\n"},
      {"", 0, "0.0.0.0", none},
      {"1 10.2.0.1 2", EINVAL, "0.0.0.0", none},
      {"1 10.2.0.1 2", EIO, "0.0.0.0", no_list + no_list + none}};
  for (const auto& [there, error, found, told] : cases) {
    auto ask = [&wanted = found] {
      const std::string table = listed();
      EXPECT_EQ(table + first_address(), wanted);
    };
    EXPECT_EQ(printed_on(made_up(there), error, ask), told);
  }
  EXPECT_NE(listed().find("127.0.0.1"), std::string::npos) << "those of the machine";
}

TEST(OwnAddresses, AsManyAsTheTableHolds) {
  auto open_files = [] { return std::distance(directory_iterator("/proc/self/fd"), {}); };
  const auto open_before = open_files();
  for (unsigned there : {1U, 31U, 32U, 1024U, 1025U, 2048U, 2049U}) {
    const std::vector all(there, made_up("1 10.1.0.1 2")[0]);
    auto list = [wanted = 9 * std::min(there, 2048U)] { EXPECT_EQ(listed().size(), wanted); };
    EXPECT_EQ(printed_on(all, 0, list), "");
    const size_t counted = there <= 1024 ? 2 * there : std::min(there, 2048U);
    EXPECT_EQ(room_asked, counted * sizeof(ifreq) + 1);
    counting_error = EIO;
    EXPECT_TRUE(printed_on(all, 0, list).ends_with("ioctl(SIOCGIFNUM) failed with 5\n"));
    counting_error = 0;
    const size_t guessed = std::clamp(std::bit_ceil(there + 1), 32U, 2048U);
    EXPECT_EQ(room_asked, guessed * sizeof(ifreq) + 1);
  }
  EXPECT_EQ(open_files(), open_before);
}

TEST(OwnAddresses, OneOfThem) {
  const auto early = made_up("1 10.7.0.1 2 1 10.7.0.2 2 1 10.7.0.3 10");
  const auto late = made_up("1 10.7.0.2 2");
  auto is_mine = [](const char* text) {
    const in_addr asked = {inet_addr(text)};
    return is_myaddr(AF_INET, &asked, 0) == 1;
  };
  auto in_child = [&] {  // a process that has matched nothing yet
    interfaces = &early;
    const bool right = is_mine("0.0.0.0") && is_mine("10.7.0.2") && !is_mine("0.0.0.0") &&
                       !is_mine("10.7.0.3") && is_mine("10.7.0.1");
    interfaces = &late;
    _exit(right && is_mine("10.7.0.1") && is_mine("10.7.0.2") && !is_mine("10.7.0.1") ? 0 : 1);
  };
  EXPECT_EXIT(in_child(), testing::ExitedWithCode(0), "") << "the last match is remembered";
  interfaces = &early;
  const char bytes[16] = {0, 0, 10, 7, 0, 3};
  for (auto [length, mine] : {std::pair{14, 1}, {6, 1}, {0, 1}, {15, 0}, {-1, 0}}) {
    EXPECT_EQ(is_myaddr(AF_INET6, bytes, length), mine) << length;
  }
  EXPECT_FALSE(is_myaddr(AF_INET6, "\0\0\12\7\0\1", 6) || is_myaddr(AF_UNIX, bytes, 0));
  interfaces = nullptr;
}

TEST(OwnAddresses, WithoutDescriptors) {
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit closed = {0, before.rlim_max};
  auto without_descriptors = [&] {
    sockaddr_in* table = nullptr;
    setrlimit(RLIMIT_NOFILE, &closed);
    EXPECT_TRUE(get_myaddrs(&table) == -1 && table != nullptr && first_address() == "0.0.0.0");
    setrlimit(RLIMIT_NOFILE, &before);
  };
  EXPECT_EQ(printed(0, without_descriptors), "get_myaddress: socket: Too many open files\n");
}

}  // namespace

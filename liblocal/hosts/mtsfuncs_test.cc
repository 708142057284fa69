// What the platform answers: its look-ups, and what this host and its addresses are.
#include "liblocal/hosts/mtsfuncs.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <filesystem>
#include <set>

#include "liblocal/base/vx_error.h"
#include "liblocal/hosts/get_myad.h"
#include "liblocal/hosts/localhost.h"
#include "tests/fakes.h"
#include "tests/machine.h"
#include "tests/work.h"

using namespace fakes;

namespace {

class LookUpTest : public MachineTest {};

TEST_F(LookUpTest, EachFindsItsOwnInItsOwnPlace) {
  const std::string hosts = machine::read_file("/etc/hosts"), room(1024, 'x');
  machine::write_file("/etc/hosts", hosts + "192.0.2.7 full " + room + "\n192.0.2.8 over " +
                                        std::string(8192, 'x') + "\n");
  machine::write_file("/etc/services", "one 101/tcp\nsnmp 161/udp\nlong 7/udp " + room + "\n");
  const in_addr own = {inet_addr("192.0.2.1")}, full = {inet_addr("192.0.2.7")};
  // The name is the first member of every entry.
  const std::pair<const void*, const char*> found[] = {
      {vx_ts_gethostbyname(" \t\nfull"), "full"},
      {vx_ts_gethostbyaddr(&own, sizeof own, AF_INET), "testhost"},
      {vx_ts_gethostent(), "localhost"},
      {vx_ts_getprotobyname("udp"), "udp"},
      {vx_ts_getservbyname("snmp", "udp"), "snmp"},
      {vx_ts_getservbyport(htons(101), nullptr), "one"},
      {vx_ts_getservent(), "one"},
      {vx_ts_getpwnam("root"), "root"},
      {vx_ts_getpwuid(0), "root"},
      {vx_ts_getgrgid(0), "root"}};
  std::set<const void*> places;
  for (const auto& [entry, name] : found) {
    ASSERT_NE(entry, nullptr) << name;
    const char* stored = *static_cast<char* const*>(entry);
    EXPECT_STREQ(stored, name);
    EXPECT_TRUE(places.insert(entry).second && places.insert(stored).second) << name;
  }
  while (vx_ts_gethostent() != nullptr || vx_ts_getservent() != nullptr) continue;
  endhostent();  // so that another round begins at the front
  endservent();
  for (const char* unknown : {static_cast<const char*>(nullptr), "unknown"}) {
    EXPECT_FALSE(vx_ts_gethostbyname(unknown) || vx_ts_getprotobyname(unknown) ||
                 vx_ts_getservbyname(unknown, nullptr) || vx_ts_getpwnam(unknown));
  }
  EXPECT_FALSE(vx_ts_gethostbyname("over") || vx_ts_gethostbyaddr(nullptr, 4, AF_INET) ||
               vx_ts_gethostbyaddr(&full, 1, AF_INET) || vx_ts_gethostbyaddr(&full, 4, AF_INET) ||
               vx_ts_getservbyname("snmp", "tcp") || vx_ts_getservbyname("long", nullptr) ||
               vx_ts_getservbyport(htons(161), "tcp") || vx_ts_getservbyport(htons(7), nullptr) ||
               vx_ts_getpwuid(54321) || vx_ts_getgrgid(54321));
  machine::write_file("/etc/hosts", hosts);
}

TEST_F(LookUpTest, TakesNamesOfItsOwnAnswers) {
  EXPECT_STREQ(vx_ts_getpwnam(vx_ts_getpwnam("daemon")->pw_name)->pw_name, "daemon");
  EXPECT_STREQ(vx_ts_getprotobyname(vx_ts_getprotobyname("udp")->p_name)->p_name, "udp");
  const std::string services = machine::read_file("/etc/services");
  machine::write_file("/etc/services", "one 101/tcp first\nsnmp 161/udp\n");
  const servent* service = vx_ts_getservbyname("snmp", nullptr);
  service = vx_ts_getservbyname(service->s_name, service->s_proto);
  ASSERT_NE(service, nullptr);
  EXPECT_STREQ(service->s_name, "snmp");
  service = vx_ts_getservbyport(htons(161), nullptr);
  service = vx_ts_getservbyport(htons(161), service->s_proto);
  ASSERT_NE(service, nullptr);
  EXPECT_STREQ(service->s_name, "snmp");
  machine::write_file("/etc/services", services);
  const std::string hosts = machine::read_file("/etc/hosts");
  machine::write_file("/etc/hosts", "198.51.100.9 z y\n198.51.100.3 mail.net mail\n");
  const hostent* host = vx_ts_gethostbyname(vx_ts_gethostbyname("mail")->h_name);
  ASSERT_NE(host, nullptr);
  EXPECT_STREQ(host->h_name, "mail.net");
  const in_addr address = {inet_addr("198.51.100.3")};
  host = vx_ts_gethostbyaddr(vx_ts_gethostbyaddr(&address, 4, AF_INET)->h_addr_list[0], 4, AF_INET);
  ASSERT_NE(host, nullptr);
  EXPECT_STREQ(host->h_name, "mail.net");
  machine::write_file("/etc/hosts", hosts);
}

TEST(TimeLookUp, EachHasAPlaceInEachThread) {
  const time_t second = 1'000'000'000, other = 0;
  const tm *utc = vx_ts_gmtime(&second), *local = vx_ts_localtime(&other);
  in_threads(2, [&](int) { EXPECT_NE(vx_ts_gmtime(&other), utc); });
  EXPECT_STREQ(vx_ts_asctime(utc), "Sun Sep  9 01:46:40 2001\n");
  EXPECT_STREQ(vx_ts_ctime(&other), asctime(local));
}

TEST(RandomNumbers, StartFromTimeProcessAndSeed) {
  now = 1'000'000'000'000;
  const uint64_t mixed = 1'000'000'000'000U * 231 + static_cast<uint64_t>(getpid());
  auto sum = [](uint64_t value) { return static_cast<unsigned>((value >> 32) + value); };
  in_threads(1, [&](int) {
    unsigned state = sum(mixed);
    EXPECT_EQ(vx_ts_rand(), rand_r(&state)) << "without a seed";
    state += sum(mixed * 231 + 7);
    vx_ts_srand(7);
    const int shared = rand();
    srand(state);
    EXPECT_EQ(shared, rand());
    EXPECT_EQ(vx_ts_rand(), rand_r(&state));
  });
  now = 0;
}

TEST_F(LookUpTest, WhatThisHostAndItsDomainAreCalled) {
  char name[256];
  EXPECT_TRUE(vx_gethostname(name, sizeof name) == 0 && strcmp(name, machine::kHostName) == 0);
  EXPECT_EQ(vx_gethostname(name, 3), -1);
  EXPECT_EQ(vx_error_get_last(), vx_error_from_errno(ENAMETOOLONG));
  for (const auto& [set, told] : {std::pair{"Example.NET", "example.net"}, {"(none)", ""}}) {
    machine::write_file("/proc/sys/kernel/domainname", set);  // valgrind has no setdomainname
    EXPECT_TRUE(vx_getdomainname(name, strlen(told) + 1) == 0 && strcmp(name, told) == 0);
    EXPECT_EQ(vx_getdomainname(name, strlen(told)), -1);
    EXPECT_EQ(vx_error_get_last(), vx_error_from_errno(ERANGE));
  }
}

TEST_F(LookUpTest, TheLocalHost) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the name is read once per process
  const std::string hosts = machine::read_file("/etc/hosts"), wanted(255, 'l');
  machine::write_file("/etc/hosts", "192.0.2.1 " + std::string(300, 'L') + " long\n");
  for (const auto& [host, name] : {std::pair{"long", wanted.c_str()}, {"no", "localhost"}}) {
    auto tell = [] {
      char whole[512], cut[5];
      vx_getlocalhost(whole, sizeof whole);
      machine::set_host_name("later");
      fprintf(stderr, "%s %s", whole, vx_getlocalhost(cut, sizeof cut));
      _exit(0);
    };
    machine::set_host_name(host);
    EXPECT_EXIT(tell(), testing::ExitedWithCode(0), std::string("^") + name + " l...$");
  }
  machine::set_host_name(machine::kHostName);
  machine::write_file("/etc/hosts", hosts);
}

// The addresses of the table, whose slots behind them must be zero, then the one that stands
// for all, and what is told, on a machine with the interfaces `there` or where asking fails.
std::pair<std::string, std::string> asked_on(const std::vector<Interface>& there, int error = 0) {
  std::string all;
  interfaces = &there;
  listing_error = error;
  const std::string told = printed(1, [&all] {
    sockaddr_in *table = nullptr, one = {};
    const int32_t count = get_myaddrs(&table);
    for (int32_t i = 0; i < count; ++i) all += std::string(inet_ntoa(table[i].sin_addr)) + " ";
    for (int32_t i = count; i < 2048; ++i) EXPECT_EQ(table[i].sin_family, AF_UNSPEC) << i;
    __brix_get_myaddress(&one);
    all += inet_ntoa(one.sin_addr);
  });
  interfaces = nullptr;
  listing_error = 0;
  return {all, told};
}

TEST(OwnAddresses, OfInterfacesThatAreUp) {
  const std::string no_list = "set_ifconf_buffer: ioctl(SIOCGIFCONF): Input/output error\n";
  const std::string none = "kivtrap: No network interfaces detected!";
  const std::tuple<std::vector<Interface>, int, std::string, std::string> cases[] = {
      {{{9, "127.0.0.1"}, {1, "10.7.0.1"}, {1, "10.7.0.2"}},
       0,
       "127.0.0.1 10.7.0.1 10.7.0.2 10.7.0.1",
       ""},
      {{{0, "10.8.0.1"}, {9, "127.0.0.1"}, {9, "127.0.0.2"}},
       0,
       "127.0.0.1 127.0.0.2 127.0.0.2",
       ""},
      {{{8, "127.0.0.1"}, {1, "10.6.0.1", AF_INET6}, {1, "10.5.0.1", AF_UNSPEC}},
       0,
       "10.6.0.1 0.0.0.0",
       ""},
      {{{-19, "10.4.0.1"}, {1, "10.3.0.1"}},
       0,
       "10.3.0.1 10.3.0.1",
       "get_myaddress: flags ioctl: No such device\n"},
      {{}, 0, "0.0.0.0", none},
      {{{1, "10.2.0.1"}}, EINVAL, "0.0.0.0", none},
      {{{1, "10.2.0.1"}}, EIO, "0.0.0.0", no_list + no_list + none}};
  for (const auto& [there, error, found, told] : cases) {
    EXPECT_EQ(asked_on(there, error), std::pair(found, told));
  }
}

TEST(OwnAddresses, AsManyAsTheTableHolds) {
  auto open_files = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const auto open_before = open_files();
  for (unsigned there : {1U, 31U, 32U, 1024U, 1025U, 2048U, 2049U}) {
    const std::vector<Interface> all(there, {1, "10.1.0.1"});
    const auto [addresses, told] = asked_on(all);
    EXPECT_TRUE(addresses.size() == 9 * std::min(there, 2048U) + 8 && told.empty()) << told;
    const size_t counted = there <= 1024 ? 2 * there : std::min(there, 2048U);
    EXPECT_EQ(list_size, counted * sizeof(ifreq) + 1);
    counting_error = EIO;
    EXPECT_TRUE(asked_on(all).second.ends_with("ioctl(SIOCGIFNUM) failed with 5\n"));
    counting_error = 0;
    const size_t guessed = std::clamp(std::bit_ceil(there + 1), 32U, 2048U);
    EXPECT_EQ(list_size, guessed * sizeof(ifreq) + 1);
  }
  EXPECT_EQ(open_files(), open_before);
}

TEST(OwnAddresses, OneOfThem) {
  const std::vector<Interface> early = {
      {1, "10.7.0.1"}, {1, "10.7.0.2"}, {1, "10.7.0.3", AF_INET6}};
  const std::vector<Interface> late = {{1, "10.7.0.2"}};
  auto is_mine = [](const char* text) {
    const in_addr asked = {inet_addr(text)};
    return is_myaddr(AF_INET, &asked, 0) == 1;
  };
  auto in_child = [&] {  // a process that has matched nothing yet
    interfaces = &early;
    const bool right = is_mine("0.0.0.0") && is_mine("10.7.0.2") && is_mine("0.0.0.0") &&
                       !is_mine("10.7.0.3") && is_mine("10.7.0.1");
    interfaces = &late;
    _exit(right && is_mine("10.7.0.1") && is_mine("10.7.0.2") && !is_mine("10.7.0.1") ? 0 : 1);
  };
  EXPECT_EXIT(in_child(), testing::ExitedWithCode(0), "") << "the last match is remembered";
  interfaces = &early;
  const char bytes[16] = {0, 0, 10, 7, 0, 3, 0, 0, 0, 0, 0, 0, 0, 9};
  for (auto [length, mine] : {std::pair{14, 1}, {6, 1}, {0, 1}, {15, 0}, {-1, 0}}) {
    EXPECT_EQ(is_myaddr(AF_INET6, bytes, length), mine) << length;
  }
  EXPECT_FALSE(is_myaddr(AF_INET6, "\0\0\12\7\0\1", 6) || is_myaddr(AF_UNIX, bytes, 0));
  interfaces = nullptr;
}

TEST(OwnAddresses, WithoutDescriptors) {
  auto without_descriptors = [] {
    sockaddr_in *table = nullptr, one = {};
    const DescriptorLimit none(0);
    EXPECT_TRUE(get_myaddrs(&table) == -1 && table != nullptr);
    __brix_get_myaddress(&one);
    EXPECT_EQ(one.sin_family, AF_UNSPEC);
  };
  EXPECT_EQ(printed(0, without_descriptors), "get_myaddress: socket: Too many open files\n");
}

}  // namespace

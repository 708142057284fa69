#include "liblocal/hosts/mtsfuncs.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>

#include "liblocal/hosts/localhost.h"
#include "liblocal/threads/vx_error.h"
#include "tests/lab.h"
#include "tests/stand_ins.h"
#include "tests/threads.h"

namespace {

class LookUpTest : public LabTest {};

TEST_F(LookUpTest, EachFindsItsOwnInItsOwnPlace) {
  const std::string hosts = lab::read_file("/etc/hosts"), room(1024, 'x');
  lab::write_file("/etc/hosts", hosts + "192.0.2.7 full " + room + "\n192.0.2.8 over " +
                                    std::string(8192, 'x') + "\n");
  lab::write_file("/etc/services", "one 101/tcp\nsnmp 161/udp\nlong 7/udp " + room + "\n");
  const in_addr lab = {inet_addr("192.0.2.1")}, full = {inet_addr("192.0.2.7")};
  // The name is the first member of every entry.
  const std::pair<const void*, const char*> found[] = {
      {vx_ts_gethostbyname(" \t\nfull"), "full"},
      {vx_ts_gethostbyaddr(&lab, sizeof lab, AF_INET), "lab-host"},
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
  EXPECT_FALSE(vx_ts_gethostbyname(nullptr) || vx_ts_gethostbyname("over") ||
               vx_ts_gethostbyaddr(nullptr, 4, AF_INET) || vx_ts_gethostbyaddr(&full, 1, AF_INET) ||
               vx_ts_gethostbyaddr(&full, 4, AF_INET));
  EXPECT_FALSE(vx_ts_getprotobyname(nullptr) || vx_ts_getprotobyname("unknown") ||
               vx_ts_getservbyname(nullptr, nullptr) || vx_ts_getservbyname("snmp", "tcp") ||
               vx_ts_getservbyname("long", nullptr) || vx_ts_getservbyport(htons(161), "tcp") ||
               vx_ts_getservbyport(htons(7), nullptr));
  EXPECT_FALSE(vx_ts_getpwnam(nullptr) || vx_ts_getpwnam("unknown") || vx_ts_getpwuid(54321) ||
               vx_ts_getgrgid(54321));
  lab::write_file("/etc/hosts", hosts);
}

TEST(TimeLookUp, EachHasAPlaceInEachThread) {
  const time_t second = 1'000'000'000, other = 0;
  const tm *utc = vx_ts_gmtime(&second), *local = vx_ts_localtime(&other);
  in_threads(2, [&](int) { EXPECT_NE(vx_ts_gmtime(&other), utc); });
  EXPECT_STREQ(vx_ts_asctime(utc), "Sun Sep  9 01:46:40 2001\n");
  EXPECT_STREQ(vx_ts_ctime(&other), asctime(local));
}

TEST(RandomNumbers, StartFromTimeProcessAndSeed) {
  stand_ins::now = 1'000'000'000'000;
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
  stand_ins::now = 0;
}

TEST_F(LookUpTest, WhatThisHostAndItsDomainAreCalled) {
  char name[256];
  EXPECT_TRUE(vx_gethostname(name, sizeof name) == 0 && strcmp(name, lab::kHostName) == 0);
  EXPECT_EQ(vx_gethostname(name, 3), -1);
  EXPECT_EQ(vx_error_get_last(), vx_error_from_errno(ENAMETOOLONG));
  for (const auto& [set, told] : {std::pair{"Example.NET", "example.net"}, {"(none)", ""}}) {
    lab::write_file("/proc/sys/kernel/domainname", set);  // valgrind has no setdomainname
    EXPECT_TRUE(vx_getdomainname(name, strlen(told) + 1) == 0 && strcmp(name, told) == 0);
    EXPECT_EQ(vx_getdomainname(name, strlen(told)), -1);
    EXPECT_EQ(vx_error_get_last(), vx_error_from_errno(ERANGE));
  }
}

TEST_F(LookUpTest, TheLocalHost) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the name is read once per process
  const std::string hosts = lab::read_file("/etc/hosts"), wanted(255, 'l');
  lab::write_file("/etc/hosts", "192.0.2.1 " + std::string(300, 'L') + " long\n");
  for (const auto& [host, name] : {std::pair{"long", wanted.c_str()}, {"no", "localhost"}}) {
    auto tell = [] {
      char whole[512], cut[5];
      vx_getlocalhost(whole, sizeof whole);
      lab::set_host_name("later");
      fprintf(stderr, "%s %s", whole, vx_getlocalhost(cut, sizeof cut));
      _exit(0);
    };
    lab::set_host_name(host);
    EXPECT_EXIT(tell(), testing::ExitedWithCode(0), std::string("^") + name + " l...$");
  }
  lab::set_host_name(lab::kHostName);
  lab::write_file("/etc/hosts", hosts);
}

}  // namespace

#include "liblocal/hosts/mtsfuncs.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "liblocal/hosts/localhost.h"
#include "liblocal/threads/vx_error.h"
#include "tests/lab.h"
#include "tests/stand_ins.h"
#include "tests/threads.h"

namespace {

class LookUpTest : public LabTest {};

TEST_F(LookUpTest, EachFindsItsOwn) {
  const hostent* by_name = vx_ts_gethostbyname(" \t\nlocalhost");
  ASSERT_NE(by_name, nullptr);
  const in_addr lab = {inet_addr("192.0.2.1")};
  const hostent* by_address = vx_ts_gethostbyaddr(&lab, sizeof lab, AF_INET);
  ASSERT_NE(by_address, nullptr);
  EXPECT_STREQ(by_name->h_name, "localhost");
  EXPECT_STREQ(by_address->h_name, "lab-host") << "no wrapper writes over another's result";

  lab::write_file("/etc/services", "one 101/tcp\nsnmp 161/udp\n");
  const servent* service = vx_ts_getservbyname("snmp", "udp");
  const servent* by_port = vx_ts_getservbyport(htons(101), nullptr);
  ASSERT_TRUE(service != nullptr && by_port != nullptr);
  EXPECT_EQ(service->s_port, htons(161));
  EXPECT_STREQ(by_port->s_name, "one");

  const passwd* root = vx_ts_getpwnam("root");
  const passwd* zero = vx_ts_getpwuid(0);
  ASSERT_TRUE(root != nullptr && zero != nullptr && root != zero);
  EXPECT_STREQ(root->pw_name, zero->pw_name);
  EXPECT_STREQ(vx_ts_getgrgid(0)->gr_name, "root");
}

TEST_F(LookUpTest, NothingAndTooMuch) {
  for (const std::string& name : {std::string("   "), std::string(100000, 'x')}) {
    EXPECT_EQ(vx_ts_gethostbyname(name.c_str()), nullptr);
  }
  EXPECT_EQ(vx_ts_gethostbyaddr("x", 1, AF_INET), nullptr);
  const std::string hosts = lab::read_file("/etc/hosts");
  lab::write_file("/etc/hosts", "192.0.2.7 long " + std::string(8192, 'x') + "\n");
  EXPECT_EQ(vx_ts_gethostbyname("long"), nullptr) << "does not fit";
  lab::write_file("/etc/hosts", hosts);
}

TEST(TimeLookUp, EachFindsItsOwn) {
  setenv("TZ", "UTC-1", 1);
  tzset();
  const time_t second = 1'000'000'000, other = 0;
  const tm* utc = vx_ts_gmtime(&second);
  const tm* local = vx_ts_localtime(&second);
  const char* text = vx_ts_ctime(&other);
  EXPECT_STREQ(vx_ts_asctime(utc), "Sun Sep  9 01:46:40 2001\n");
  EXPECT_EQ(local->tm_hour, 2);
  EXPECT_STREQ(text, "Thu Jan  1 01:00:00 1970\n");
  tm far = *utc;
  far.tm_year = 100'000;
  EXPECT_EQ(vx_ts_asctime(&far), nullptr);
  in_threads(2, [&](int) { EXPECT_NE(vx_ts_gmtime(&other), utc); });
  EXPECT_EQ(utc->tm_year, 101);
  unsetenv("TZ");
  tzset();
}

TEST(RandomNumbers, StartFromTimeAndProcess) {
  stand_ins::now = 1'000'000'000'000;
  const uint64_t mixed = 1'000'000'000'000U * 231 + static_cast<uint64_t>(getpid());
  const auto seed = static_cast<unsigned>((mixed >> 32) + (mixed & 0xffffffff));
  in_threads(2, [seed](int) {
    unsigned state = seed;
    EXPECT_EQ(vx_ts_rand(), rand_r(&state));
  });
  stand_ins::now = 0;
}

TEST_F(LookUpTest, WhatThisHostIsCalled) {
  char name[256];
  EXPECT_EQ(vx_gethostname(name, sizeof name), 0);
  EXPECT_STREQ(name, lab::kHostName);
  EXPECT_EQ(vx_gethostname(name, 3), -1);
  EXPECT_EQ(vx_error_get_last(), vx_error_from_errno(ENAMETOOLONG));

  const std::string domain = "/proc/sys/kernel/domainname";  // valgrind has no setdomainname
  lab::write_file(domain, "Example.NET");
  EXPECT_EQ(vx_getdomainname(name, 12), 0);
  EXPECT_STREQ(name, "example.net");
  EXPECT_EQ(vx_getdomainname(name, 11), -1);
  EXPECT_EQ(vx_error_get_last(), vx_error_from_errno(ERANGE));
  lab::write_file(domain, "(none)");
}

// The name is read once per process, so each case is a process of its own.
TEST_F(LookUpTest, TheLocalHost) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string long_name(300, 'L');
  const struct {
    std::string host, hosts, wanted;
  } cases[] = {{"LAB", "192.0.2.1 Lab.Example.NET LAB\n", "lab.example.net"},
               {"unknown", "127.0.0.1 localhost\n", "localhost"},
               {"long", "192.0.2.1 " + long_name + " long\n", std::string(255, 'l')}};
  const std::string hosts_before = lab::read_file("/etc/hosts");
  for (const auto& [host, hosts, wanted] : cases) {
    lab::set_host_name(host);
    lab::write_file("/etc/hosts", hosts);
    auto in_child = [&wanted = wanted] {
      char name[512], cut[5];
      if (vx_getlocalhost(name, sizeof name) != name || wanted != name) _exit(1);
      lab::set_host_name("later");
      vx_getlocalhost(cut, sizeof cut);
      _exit(wanted.substr(0, 4) == cut ? 0 : 2);
    };
    EXPECT_EXIT(in_child(), testing::ExitedWithCode(0), "") << wanted;
  }
  lab::set_host_name(lab::kHostName);
  lab::write_file("/etc/hosts", hosts_before);
}

}  // namespace

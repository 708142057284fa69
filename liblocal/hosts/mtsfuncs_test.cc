// The thread-safe look-ups, and what this host is called.
#include "liblocal/hosts/mtsfuncs.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cstring>
#include <set>

#include "liblocal/base/vx_error.h"
#include "liblocal/hosts/localhost.h"
#include "tests/machine.h"
#include "tests/work.h"

namespace {

// Hosts and services of its own.
class LookUpTest : public MachineTest {
 protected:
  void SetUp() override {
    MachineTest::SetUp();
    if (IsSkipped()) return;
    machine::write_file("/etc/hosts", "127.0.0.1 localhost\n192.0.2.1 testhost mail\n192.0.2.7 " +
                                          std::string(8192, 'x') + " full\n");
    machine::write_file("/etc/services", "one 101/tcp\nsnmp 161/udp\n");
  }
  void TearDown() override {
    if (!IsSkipped()) machine::write_file("/etc/hosts", hosts_before_);
  }

 private:
  const std::string hosts_before_ = machine::read_file("/etc/hosts");
};

const in_addr own = {inet_addr("192.0.2.1")};

TEST_F(LookUpTest, EachFindsItsEntryInAPlaceOfItsOwn) {
  const struct {
    const void* entry;  // whose first member is its name
    const char* name;
  } found[] = {{vx_ts_gethostbyname(" \t\ntesthost"), "testhost"},
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
  for (const auto& each : found) {
    ASSERT_NE(each.entry, nullptr) << each.name;
    const char* name = *static_cast<char* const*>(each.entry);
    EXPECT_STREQ(name, each.name);
    EXPECT_TRUE(places.insert(each.entry).second) << each.name;
    EXPECT_TRUE(places.insert(name).second) << each.name;
  }
  endhostent();  // so that another round begins at the front
  endservent();
}

TEST_F(LookUpTest, FindsNothingUnknownOrTooLong) {
  for (const char* unknown : {static_cast<const char*>(nullptr), "unknown"}) {
    EXPECT_EQ(vx_ts_gethostbyname(unknown), nullptr);
    EXPECT_EQ(vx_ts_getservbyname(unknown, nullptr), nullptr);
    EXPECT_EQ(vx_ts_getpwnam(unknown), nullptr);
  }
  EXPECT_EQ(vx_ts_gethostbyname("full"), nullptr);
  EXPECT_EQ(vx_ts_gethostbyaddr(nullptr, 4, AF_INET), nullptr);
  EXPECT_EQ(vx_ts_gethostbyaddr(&own, 17, AF_INET), nullptr);
  EXPECT_EQ(vx_ts_getservbyname("snmp", "tcp"), nullptr);
}

TEST_F(LookUpTest, TakesNamesAndAddressesOfItsOwnAnswers) {
  EXPECT_STREQ(vx_ts_gethostbyname(vx_ts_gethostbyname("mail")->h_aliases[0])->h_name, "testhost");
  const char* address = vx_ts_gethostbyaddr(&own, 4, AF_INET)->h_addr_list[0];
  EXPECT_STREQ(vx_ts_gethostbyaddr(address, 4, AF_INET)->h_name, "testhost");
}

TEST(TimeLookUp, EachThreadHasItsOwn) {
  const time_t start = 0;
  const tm* utc = vx_ts_gmtime(&start);
  in_threads(1, [&](int) { EXPECT_NE(vx_ts_gmtime(&start), utc); });
  EXPECT_STREQ(vx_ts_asctime(utc), "Thu Jan  1 00:00:00 1970\n");
}

TEST_F(LookUpTest, NamesOfThisHostAndItsDomainMustFit) {
  char name[256];
  EXPECT_EQ(vx_gethostname(name, sizeof name), 0);
  EXPECT_STREQ(name, machine::kHostName);
  EXPECT_EQ(vx_gethostname(name, 3), -1);
  machine::write_file("/proc/sys/kernel/domainname", "Example.NET");
  EXPECT_EQ(vx_getdomainname(name, 12), 0);
  EXPECT_STREQ(name, "example.net");
  EXPECT_EQ(vx_getdomainname(name, 11), -1);
  EXPECT_EQ(vx_error_get_last(), vx_error_from_errno(ERANGE));
  machine::write_file("/proc/sys/kernel/domainname", "(none)");
  EXPECT_EQ(vx_getdomainname(name, 1), 0);
}

// What vx_getlocalhost answers in a process on a host called `host`, also once that has changed.
void print_local_host(const char* host) {
  machine::set_host_name(host);
  char name[512];
  vx_getlocalhost(name, 1);
  machine::set_host_name(machine::kHostName);
  fputs(vx_getlocalhost(name, sizeof name), stderr);
  _exit(0);
}

TEST_F(LookUpTest, TheLocalHostIsResolvedOnce) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  machine::write_file("/etc/hosts", "192.0.2.1 " + std::string(300, 'L') + " long\n");
  EXPECT_EXIT(print_local_host("long"), testing::ExitedWithCode(0), "^l{255}$");
  EXPECT_EXIT(print_local_host("no"), testing::ExitedWithCode(0), "^localhost$");
}

}  // namespace

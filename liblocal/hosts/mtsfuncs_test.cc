// The thread-safe look-ups, and what this host is called.
#include "liblocal/hosts/mtsfuncs.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cstring>
#include <set>

#include "liblocal/base/vx_error.h"
#include "liblocal/hosts/localhost.h"
#include "tests/fakes.h"
#include "tests/machine.h"
#include "tests/work.h"

namespace {

// Hosts and services of its own.
class LookUpTest : public MachineTest {
 protected:
  void SetUp() override {
    MachineTest::SetUp();
    if (IsSkipped()) return;
    const std::string room(1024, 'x');
    machine::write_file("/etc/hosts",
                        "127.0.0.1 localhost\n192.0.2.1 testhost mail\n192.0.2.7 full " + room +
                            "\n192.0.2.8 over " + std::string(8192, 'x') + "\n");
    machine::write_file("/etc/services", "one 101/tcp\nsnmp 161/udp\nlong 7/udp " + room + "\n");
  }
  void TearDown() override {
    if (!IsSkipped()) machine::write_file("/etc/hosts", hosts_before_);
  }

 private:
  const std::string hosts_before_ = machine::read_file("/etc/hosts");
};

const in_addr own = {inet_addr("192.0.2.1")}, full = {inet_addr("192.0.2.7")};

TEST_F(LookUpTest, EachFindsItsEntryInAPlaceOfItsOwn) {
  const struct {
    const void* entry;  // whose first member is its name
    const char* name;
  } found[] = {{vx_ts_gethostbyname(" \t\nfull"), "full"},
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
  EXPECT_EQ(vx_ts_gethostbyname("over"), nullptr);
  EXPECT_EQ(vx_ts_gethostbyaddr(nullptr, 4, AF_INET), nullptr);
  EXPECT_EQ(vx_ts_gethostbyaddr(&full, 4, AF_INET), nullptr);
  EXPECT_EQ(vx_ts_gethostbyaddr(&own, 17, AF_INET), nullptr);
  EXPECT_EQ(vx_ts_getservbyname("snmp", "tcp"), nullptr);
  EXPECT_EQ(vx_ts_getservbyport(htons(7), nullptr), nullptr);
}

TEST_F(LookUpTest, EachTakesNamesOfItsOwnAnswers) {
  EXPECT_STREQ(vx_ts_getpwnam(vx_ts_getpwnam("daemon")->pw_name)->pw_name, "daemon");
  EXPECT_STREQ(vx_ts_getprotobyname(vx_ts_getprotobyname("udp")->p_name)->p_name, "udp");
  EXPECT_STREQ(vx_ts_gethostbyname(vx_ts_gethostbyname("mail")->h_aliases[0])->h_name, "testhost");
  const char* address = vx_ts_gethostbyaddr(&own, 4, AF_INET)->h_addr_list[0];
  EXPECT_STREQ(vx_ts_gethostbyaddr(address, 4, AF_INET)->h_name, "testhost");
}

TEST(TimeLookUp, EachHasAPlaceInEachThread) {
  const time_t second = 1'000'000'000, other = 0;
  const tm *utc = vx_ts_gmtime(&second), *local = vx_ts_localtime(&other);
  in_threads(2, [&](int) { EXPECT_NE(vx_ts_gmtime(&other), utc); });
  EXPECT_STREQ(vx_ts_asctime(utc), "Sun Sep  9 01:46:40 2001\n");
  EXPECT_STREQ(vx_ts_ctime(&other), asctime(local));
}

TEST(RandomNumbers, StartFromTimeProcessAndSeed) {
  fakes::now = 1'000'000'000'000;
  in_threads(1, [](int) {
    uint64_t mixed = 1'000'000'000'000U * 231 + static_cast<uint64_t>(getpid());
    auto state = static_cast<unsigned>((mixed >> 32) + mixed);
    EXPECT_EQ(vx_ts_rand(), rand_r(&state)) << "without a seed";
    mixed = mixed * 231 + 7;
    state += static_cast<unsigned>((mixed >> 32) + mixed);
    vx_ts_srand(7);
    EXPECT_EQ(vx_ts_rand(), rand_r(&state));
  });
  fakes::now = 0;
}

TEST_F(LookUpTest, NamesOfThisHostAndItsDomainMustFit) {
  char name[256];
  EXPECT_EQ(vx_gethostname(name, sizeof name), 0);
  EXPECT_STREQ(name, machine::kHostName);
  EXPECT_EQ(vx_gethostname(name, 3), -1);
  EXPECT_EQ(vx_error_get_last(), vx_error_from_errno(ENAMETOOLONG));
  for (const char* set : {"Example.NET", "(none)"}) {
    machine::write_file("/proc/sys/kernel/domainname", set);  // valgrind has no setdomainname
    const std::string domain = *set == '(' ? "" : "example.net";
    EXPECT_EQ(vx_getdomainname(name, domain.size() + 1), 0);
    EXPECT_EQ(name, domain);
    EXPECT_EQ(vx_getdomainname(name, domain.size()), -1);
    EXPECT_EQ(vx_error_get_last(), vx_error_from_errno(ERANGE));
  }
}

// What vx_getlocalhost answers in a process on a host called `host`, also once that has changed.
void print_local_host(const char* host) {
  machine::set_host_name(host);
  char whole[512], cut[5];
  vx_getlocalhost(whole, sizeof whole);
  machine::set_host_name(machine::kHostName);
  fprintf(stderr, "%s %s", whole, vx_getlocalhost(cut, sizeof cut));
  _exit(0);
}

TEST_F(LookUpTest, TheLocalHostIsResolvedOnce) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  machine::write_file("/etc/hosts", "192.0.2.1 " + std::string(300, 'L') + " long\n");
  EXPECT_EXIT(print_local_host("long"), testing::ExitedWithCode(0),
              "^" + std::string(255, 'l') + " llll$");
  EXPECT_EXIT(print_local_host("no"), testing::ExitedWithCode(0), "^localhost loca$");
}

}  // namespace

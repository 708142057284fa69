// Names of this host, of others and of clients, the look-ups beneath, and addresses of faked
// interfaces. The resolver is the hosts file of the test machine; its calls are counted.
#include <arpa/inet.h>
#include <unistd.h>

#include "liblocal/base/svc_time.h"
#include "liblocal/base/vx_error.h"
#include "liblocal/hosts/client_list.h"
#include "liblocal/hosts/dns_cache.h"
#include "liblocal/hosts/get_myad.h"
#include "liblocal/hosts/is_mynam.h"
#include "liblocal/hosts/localhost.h"
#include "liblocal/hosts/mtsfuncs.h"
#include "tests/fakes.h"
#include "tests/machine.h"
#include "tests/work.h"

using namespace fakes;
using namespace machine;

namespace {

const std::string kHosts =
    "127.0.0.1 localhost manager\n192.0.2.1 node.net box testhost\n192.0.2.3 node.net\n"
    "198.51.100.1 web.net web www\n198.51.100.2 web.net web\n"
    "198.51.100.3 mail.net mail\n198.51.100.3 post.net post\n";

void write_hosts(const std::string& text) { write_file("/etc/hosts", text); }

void pass(int64_t seconds) {
  now += seconds;
  svc_time_reset();
}

// A text that the caller frees, or "(null)".
std::string owned(char* text) {
  std::string copy = text == nullptr ? "(null)" : text;
  free(text);
  return copy;
}

// How many names `work` asks the resolver for.
int asked_by(auto work) {
  const int before = names_asked;
  work();
  return names_asked - before;
}

class NameTest : public MachineTest {
 protected:
  void SetUp() override {
    MachineTest::SetUp();
    if (IsSkipped()) return;
    start_over();
    const DnsCacheHold prepared;  // looks the own name up once in the process
  }
  void TearDown() override {
    if (IsSkipped()) return;
    start_over();
    write_hosts(hosts_before_);
    pass(-now);
  }

  static void start_over() {
    write_hosts(kHosts);
    free_dns_hostlist_cache();
    free_client_hostlist_cache();
    pass(1'000'000'000 - now);
    resolver_is_down = false;
    interfaces = nullptr;
  }

 private:
  const std::string hosts_before_ = read_file("/etc/hosts");
};

TEST_F(NameTest, OfThisHostAreKnown) {
  EXPECT_EQ(is_myname(nullptr), 1);
  EXPECT_EQ(is_myname("LocalHost"), 1);
  EXPECT_TRUE(dns_cache_is_local_word("LocalHost"));
  EXPECT_EQ(dns_hostlist_cache.count, 0);  // no look-up until now
  for (const char* name : {"NODE.net", "192.0.2.3", "manager", ""}) EXPECT_EQ(is_myname(name), 1);
  for (const char* name : {"web", "198.51.100.3", "nobody"}) EXPECT_EQ(is_myname(name), 0);
  EXPECT_EQ(owned(get_primaryhostname("www")), "web.net");
  EXPECT_EQ(owned(get_primaryhostname(nullptr)), "node.net");
  // A name in an answer of the resolver.
  EXPECT_EQ(samehost(vx_ts_gethostbyname("mail")->h_name, "post"), 1);
}

TEST_F(NameTest, HostsAreCompared) {
  const struct {
    const char *first, *second;
    int same;
  } rows[] = {{"nobody", "NoBody", 1}, {nullptr, "box", 1},  {"box", nullptr, 1},
              {"mail", "post", 1},     {"nobody", "web", 0}, {nullptr, nullptr, 1},
              {"web", "mail", 0},      {"web", "nobody", 0}};
  for (const auto& row : rows) {
    start_over();
    EXPECT_EQ(samehost(row.first, row.second), row.same);
  }
  EXPECT_EQ(hostlist_cache_host(&dns_hostlist_cache, "web")->state, HOST_LIVE);
}

TEST_F(NameTest, TheyStandBeforeAddresses) {
  const struct {
    const char* asked;
    int debug;
    std::string chain, printed;
  } rows[] = {
      {nullptr, 0, " node.net box testhost node localhost manager 192.0.2.1 127.0.0.1 192.0.2.3",
       "Reverse DNS lookup failed for address 203.0.113.9\n"},
      {" 9.9.9.9", 0, " 9.9.9.9  9.9.9.9",
       "Reverse DNS lookup failed for host  9.9.9.9, address 9.9.9.9\n"},
      {"nobody", 1, " nobody", "Illegal/NULL hostname detected (nobody)\n"}};
  const std::vector<Interface> there = {
      {1, "192.0.2.1"}, {1, "203.0.113.9"}, {1, "10.0.0.1", AF_INET6}, {9, "127.0.0.1"}};
  interfaces = &there;
  const DnsCacheHold hold;
  for (const auto& row : rows) {
    const host_entry* each = nullptr;
    auto resolve = [&] { each = dns_cache_resolve(&dns_hostlist_cache, row.asked, now); };
    EXPECT_EQ(printed(row.debug, resolve), "kivtrap: " + row.printed);
    std::string chain;
    for (; each != nullptr; each = each->next) chain += std::string(" ") + each->name;
    EXPECT_EQ(chain, row.chain);
  }
}

TEST_F(NameTest, TheResolverIsAskedOncePerTime) {
  auto ask = [] {
    EXPECT_EQ(is_myname("node"), 1);
    EXPECT_EQ(is_validhostname("www"), 1);
    EXPECT_EQ(is_validhostname("nobody"), 0);
  };
  EXPECT_EQ(asked_by(ask), 3);
  const struct {
    int seconds, asked;
    bool resolver_is_down;
  } later[] = {{300, 0, false}, {1, 1, false},  {1499, 1, false},
               {1, 2, true},    {300, 1, true}, {1, 2, true}};
  for (const auto& row : later) {  // known names stay known while the resolver is down
    pass(row.seconds);
    resolver_is_down = row.resolver_is_down;
    EXPECT_EQ(asked_by(ask), row.asked) << row.seconds;
  }
}

TEST_F(NameTest, EveryAllocationMayBeRefused) {
  EXPECT_EQ(owned(get_primaryhostname("www")), "web.net");  // makes what lasts
  std::vector<int64_t> slept;
  sleeps = &slept;
  refuse_each_allocation([&](const FailingMalloc& failing) {
    start_over();
    slept.clear();
    std::string name;
    const std::string text = printed(0, [&] { name = owned(get_primaryhostname("www")); });
    EXPECT_EQ(text.empty() && slept.empty(), !failing.failed());  // waited for or reported
    if (name != "web.net") {
      EXPECT_EQ(name + text, "(null)kivtrap: SYSTEM error: Cannot allocate memory\n");
    }
  });
  sleeps = nullptr;
}

TEST(RandomNumbers, StartFromTimeProcessAndSeed) {
  now = 1'000'000'000;
  const int64_t mixed = (now * 231 + getpid()) * 231 + 1;
  in_threads(1, [seed = static_cast<uint32_t>((mixed >> 32) + mixed)](int) mutable {
    vx_ts_srand(1);
    EXPECT_EQ(vx_ts_rand(), rand_r(&seed));
  });
  now = 0;
}

TEST_F(NameTest, ManyThreadsMayAsk) {
  in_threads(8, [](int thread) {
    for (int i = 0; i < 50; ++i) {
      EXPECT_EQ(is_myname("box"), 1);
      EXPECT_EQ(samehost("web", "www"), 1);
      if (i % 10 == thread) pass(1801);
    }
  });
}

TEST_F(NameTest, ThoseOfAClientBelongTogether) {
  const char* aliases[] = {"www", nullptr};
  EXPECT_EQ(client_list_add_client("web", aliases), 1);
  EXPECT_EQ(client_list_add_client(nullptr, aliases), 0);
  EXPECT_EQ(sameclient("WWW", "web"), 1);
  EXPECT_EQ(sameclient("no", "NO"), 1);
  EXPECT_EQ(sameclient("no", "mail"), 0);
  EXPECT_EQ(sameclient(nullptr, "web"), 0);
  EXPECT_EQ(owned(get_primaryclientname("www")), "web");
  client_list_remove_byname("www");
  EXPECT_EQ(get_primaryclientname("web"), nullptr);
}

TEST_F(NameTest, ClientsAreKnownForAnHourOrForEver) {
  client_list_add_client("hour", nullptr);
  set_client_cache_update_style(1);
  client_list_add_client("ever", nullptr);
  pass(3600);
  EXPECT_EQ(owned(get_primaryclientname("hour")), "hour");
  pass(1);
  EXPECT_EQ(get_primaryclientname("hour"), nullptr);
  EXPECT_EQ(owned(get_primaryclientname("ever")), "ever");
}

TEST(LookUps, NeedAKey) {
  EXPECT_EQ(vx_ts_gethostbyname(nullptr), nullptr);
  EXPECT_EQ(vx_ts_gethostbyaddr(nullptr, 4, AF_INET), nullptr);
  EXPECT_EQ(vx_ts_getprotobyname(nullptr), nullptr);
  EXPECT_EQ(vx_ts_getservbyname(nullptr, nullptr), nullptr);
  EXPECT_EQ(vx_ts_getpwnam(nullptr), nullptr);
  EXPECT_EQ(vx_ts_getpwnam("root")->pw_uid, 0U);
}

TEST_F(NameTest, OfTheHostAndItsDomain) {
  char name[256];
  EXPECT_EQ(vx_gethostname(name, sizeof name), 0);
  EXPECT_STREQ(name, kHostName);
  EXPECT_EQ(vx_gethostname(name, 3), -1);
  write_file("/proc/sys/kernel/domainname", "Example.NET");
  EXPECT_EQ(vx_getdomainname(name, 12), 0);
  EXPECT_STREQ(name, "example.net");
  EXPECT_EQ(vx_getdomainname(name, 11), -1);
  EXPECT_EQ(vx_error_get_last(), vx_error_from_errno(ERANGE));
  write_file("/proc/sys/kernel/domainname", "(none)");
  EXPECT_EQ(vx_getdomainname(name, 1), 0);
}

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
  const std::pair<std::vector<Interface>, std::string> rows[] = {
      {{{9, "127.0.0.1"}, {1, "10.7.0.1"}, {1, "10.7.0.2"}},
       "127.0.0.1 10.7.0.1 10.7.0.2 10.7.0.1"},
      {{{0, "10.8.0.1"}, {9, "127.0.0.1"}}, "127.0.0.1 127.0.0.1"},
      {{{1, "10.6.0.1", AF_INET6}, {1, "10.5.0.1", AF_UNSPEC}}, "10.6.0.1 0.0.0.0"},
      {{{-ENODEV, "10.4.0.1"}}, "0.0.0.0get_myaddress: flags ioctl: No such device\n"},
      {{}, "0.0.0.0" + none}};
  for (const auto& [there, answer] : rows) EXPECT_EQ(ask(there), answer);
  listing_error = EIO;
  EXPECT_EQ(ask({{1, "10.2.0.1"}}), "0.0.0.0" + failure + failure + none);
  listing_error = 0;
}

TEST(OwnAddresses, NeedASocket) {
  sockaddr_in* table = nullptr;
  const DescriptorLimit none(0);
  EXPECT_EQ(get_myaddrs(&table), -1);
  EXPECT_NE(table, nullptr);
}

TEST(OwnAddresses, AsManyAsTheTableHolds) {
  const std::string answer = ask(std::vector<Interface>(2049, {1, "10.1.0.1"}));
  EXPECT_EQ(answer.size(), 2048 * 9 + 8U);  // and the one of __brix_get_myaddress
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

TEST(OwnAddresses, OfAnotherFamilyAreComparedAsBytes) {
  const std::vector<Interface> there = {{1, "10.7.0.1", AF_INET6}};
  interfaces = &there;
  const char bytes[] = "\0\0\x0A\x07\0\1\0\0\0\0\0\0\0\x09";
  for (auto [length, mine] : {std::pair{14, 1}, {15, 0}, {0, 1}, {-1, 0}}) {
    EXPECT_EQ(is_myaddr(AF_INET6, bytes, length), mine) << length;
  }
  EXPECT_EQ(is_myaddr(AF_UNSPEC, bytes, 0), 0);
  interfaces = nullptr;
}

}  // namespace

// Names of this host and of others, and those of clients, in the test machine: its hosts file is
// the resolver, whose calls are counted.
#include "liblocal/hosts/is_mynam.h"

#include <arpa/inet.h>

#include "liblocal/base/svc_time.h"
#include "liblocal/hosts/client_list.h"
#include "liblocal/hosts/dns_cache.h"
#include "liblocal/hosts/get_myad.h"
#include "liblocal/hosts/mtsfuncs.h"
#include "tests/fakes.h"
#include "tests/machine.h"
#include "tests/work.h"

using namespace fakes;

namespace {

const std::string kHosts =
    "127.0.0.1 localhost manager\n192.0.2.1 node.net box testhost\n192.0.2.3 node.net\n"
    "198.51.100.1 web.net web www\n198.51.100.2 web.net web\n"
    "198.51.100.3 mail.net mail\n198.51.100.3 post.net post\n";

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
    { const DnsCacheHold prepared; }  // looks the own name up once in the process
    start_over();
  }
  void TearDown() override {
    if (IsSkipped()) return;
    start_over();
    machine::write_file("/etc/hosts", hosts_before_);
    pass(-now);
  }

  static void start_over() {
    machine::write_file("/etc/hosts", kHosts);
    free_dns_hostlist_cache();
    free_client_hostlist_cache();
    pass(1'000'000'000 - now);
    resolver_is_down = false;
    interfaces = nullptr;
  }

 private:
  const std::string hosts_before_ = machine::read_file("/etc/hosts");
};

TEST_F(NameTest, KnowsTheNamesOfThisHostAndOthers) {
  EXPECT_EQ(is_myname(nullptr), 1);
  EXPECT_EQ(is_myname("LocalHost"), 1);
  EXPECT_EQ(dns_hostlist_cache.count, 0) << "without a look-up";
  for (const char* name : {"NODE.net", "192.0.2.3", "manager", ""}) EXPECT_EQ(is_myname(name), 1);
  for (const char* name : {"web", "198.51.100.3", "nobody"}) EXPECT_EQ(is_myname(name), 0);
  EXPECT_EQ(owned(get_primaryhostname("www")), "web.net");
  EXPECT_EQ(owned(get_primaryhostname(nullptr)), "node.net");
}

TEST_F(NameTest, AsksForThisHostUntilItIsResolved) {
  resolver_is_down = true;
  EXPECT_EQ(is_myname("box"), 0);
  EXPECT_EQ(is_validhostname(nullptr), 0);
  resolver_is_down = false;
  EXPECT_EQ(is_myname("192.0.2.1"), 1);
}

TEST_F(NameTest, ComparesHosts) {
  const struct {
    const char *first, *second;
    int same;
  } rows[] = {{"nobody", "NoBody", 1}, {nullptr, "box", 1}, {"box", nullptr, 1},
              {"mail", "post", 1},     {"web", "mail", 0},  {"web", "nobody", 0}};
  for (const auto& row : rows) {
    start_over();
    EXPECT_EQ(samehost(row.first, row.second), row.same) << (row.first ? row.first : "null");
  }
  EXPECT_EQ(hostlist_cache_host(&dns_hostlist_cache, "web")->state, HOST_LIVE);
}

TEST_F(NameTest, TakesNamesOfTheResolversAnswers) {
  auto mail = [] { return vx_ts_gethostbyname("mail")->h_name; };
  EXPECT_EQ(is_myname(mail()), 0);
  EXPECT_EQ(samehost(mail(), "post"), 1);
}

TEST_F(NameTest, ChainsNamesBeforeAddresses) {
  const struct {
    const char* asked;
    std::string chain, printed;
  } rows[] = {
      {nullptr, " node.net box testhost node localhost manager 192.0.2.1 127.0.0.1 192.0.2.3",
       "Reverse DNS lookup failed for address 203.0.113.9\n"},
      {"9.9.9.9", " 9.9.9.9", "Reverse DNS lookup failed for host 9.9.9.9, address 9.9.9.9\n"},
      {"nobody", " nobody", "Illegal/NULL hostname detected (nobody)\n"}};
  const std::vector<Interface> there = {
      {1, "192.0.2.1"}, {1, "203.0.113.9"}, {1, "10.0.0.1", AF_INET6}, {9, "127.0.0.1"}};
  interfaces = &there;
  const DnsCacheHold hold;
  for (const auto& row : rows) {
    const host_entry* each = nullptr;
    auto resolve = [&] { each = dns_cache_resolve(&dns_hostlist_cache, row.asked, now); };
    EXPECT_EQ(printed(1, resolve), "kivtrap: " + row.printed);
    std::string chain;
    for (; each != nullptr; each = each->next) chain += std::string(" ") + each->name;
    EXPECT_EQ(chain, row.chain);
  }
}

TEST_F(NameTest, AsksTheResolverOncePerTime) {
  auto ask = [] {
    EXPECT_EQ(is_myname("node"), 1);
    EXPECT_EQ(is_validhostname("www"), 1);
    EXPECT_EQ(is_validhostname("nobody"), 0);
  };
  EXPECT_EQ(asked_by(ask), 3);
  now += 5000;
  EXPECT_EQ(asked_by(ask), 0) << "the service time is not reset yet";
  now -= 5000;
  const struct {
    int seconds, asked;
    bool resolver_is_down;
  } later[] = {{300, 0, false}, {1, 1, false},  {1499, 1, false},
               {1801, 3, true}, {300, 0, true}, {1, 3, true}};
  for (const auto& row : later) {  // known names stay known while the resolver is down
    pass(row.seconds);
    resolver_is_down = row.resolver_is_down;
    EXPECT_EQ(asked_by(ask), row.asked) << row.seconds;
  }
}

TEST_F(NameTest, MovesNamesToAnotherHostButNotThoseOfThisHost) {
  EXPECT_EQ(is_myname("box"), 1);
  EXPECT_EQ(is_validhostname("mail"), 1);
  machine::write_file("/etc/hosts", kHosts + "198.51.100.8 thief mail.net box\n");
  EXPECT_EQ(samehost("mail.net", "thief"), 1);
  EXPECT_EQ(asked_by([] { EXPECT_EQ(is_myname("box"), 1); }), 0);
}

TEST_F(NameTest, MovesTheNamesOfThisHostToItsNewName) {
  EXPECT_EQ(is_myname("box"), 1);
  machine::write_file("/etc/hosts", "127.0.0.1 localhost\n192.0.2.9 new.net node.net testhost\n");
  pass(1801);
  EXPECT_EQ(is_myname("new"), 1);
  EXPECT_EQ(asked_by([] { EXPECT_EQ(is_myname("node.net"), 1); }), 0);
}

TEST_F(NameTest, StaysSoundWhenAnAllocationIsRefused) {
  EXPECT_EQ(owned(get_primaryhostname("www")), "web.net") << "makes what lasts";
  std::vector<int64_t> slept;
  sleeps = &slept;
  refuse_each_allocation([&](const FailingMalloc&) {
    start_over();
    std::string name;
    const std::string text = printed(0, [&] { name = owned(get_primaryhostname("www")); });
    if (name != "web.net") {
      EXPECT_EQ(name + text, "(null)kivtrap: SYSTEM error: Cannot allocate memory\n");
    }
  });
  sleeps = nullptr;
}

TEST_F(NameTest, MayBeAskedByManyThreads) {
  in_threads(8, [&](int thread) {
    const std::string own = "client" + std::to_string(thread);
    const char* aliases[] = {"shared", nullptr};
    const in_addr broadcast = {INADDR_NONE};
    for (int i = 0; i < 50; ++i) {
      EXPECT_EQ(is_myname("box"), 1);
      EXPECT_EQ(samehost("web", "www"), 1);
      EXPECT_EQ(client_list_add_client(own.c_str(), aliases), 1);
      EXPECT_EQ(is_myaddr(AF_INET, &broadcast, 4), 0) << "but the table is made anew";
      if (i % 10 == thread) pass(1801);
    }
  });
}

TEST_F(NameTest, KnowsTheNamesOfClients) {
  const char* aliases[] = {"www", nullptr};
  EXPECT_EQ(client_list_add_client("web", aliases), 1);
  EXPECT_EQ(client_list_add_client(nullptr, nullptr), 0);
  EXPECT_EQ(sameclient("WWW", "web"), 1);
  EXPECT_EQ(sameclient("no", "mail"), 0);
  EXPECT_EQ(sameclient(nullptr, nullptr), 0);
  EXPECT_EQ(owned(get_primaryclientname("www")), "web");
  client_list_remove_byname("www");
  EXPECT_EQ(get_primaryclientname("web"), nullptr);
}

TEST_F(NameTest, KnowsClientsForAnHourOrForEver) {
  client_list_add_client("hour", nullptr);
  set_client_cache_update_style(kClientsNeverExpire);
  client_list_add_client("ever", nullptr);
  pass(3600);
  EXPECT_EQ(owned(get_primaryclientname("hour")), "hour");
  pass(1);
  EXPECT_EQ(get_primaryclientname("hour"), nullptr);
  EXPECT_EQ(owned(get_primaryclientname("ever")), "ever");
}

}  // namespace

// The cache of hosts, by itself and as those of the resolver and of the clients; these in the
// test machine, where the hosts file is the resolver and its calls are counted.
#include "liblocal/hosts/hostlist_cache.h"

#include <arpa/inet.h>
#include <strings.h>

#include <cstring>
#include <span>

#include "liblocal/base/svc_time.h"
#include "liblocal/hosts/client_list.h"
#include "liblocal/hosts/cluster.h"
#include "liblocal/hosts/dns_cache.h"
#include "liblocal/hosts/get_myad.h"
#include "liblocal/hosts/is_mynam.h"
#include "liblocal/hosts/localhost.h"
#include "liblocal/hosts/mtsfuncs.h"
#include "liblocal/messages/errinfo.h"
#include "tests/fakes.h"
#include "tests/machine.h"
#include "tests/work.h"

using namespace fakes;

extern std::string* pauses;
static int (*virtual_host_hook)(const char* name) = nullptr;

extern "C" int __wrap__Z20clu_is_localvirthostPKc(const char* name) {
  return virtual_host_hook != nullptr ? virtual_host_hook(name) : 0;
}

namespace {

// Empty when `cache` is sound, else what is wrong with it.
std::string hostlist_fault(const hostlist_cache& cache) {
  int32_t stale = 0, chained = 0;
  for (int32_t i = 0; i < cache.count; ++i) {
    const host_entry* entry = cache.table[i];
    if (i > 0 && strcasecmp(cache.table[i - 1]->name, entry->name) >= 0) return "not sorted";
    const host_entry* host = entry->state == HOST_STALE ? nullptr : entry->primary;
    if (host == nullptr) ++stale;
    if (host == nullptr && (entry->primary != entry || entry->next)) return "a stale chain";
    if (hostlist_cache_host(&cache, entry->name) != host) return "not found";
    if (host != entry) continue;
    for (const host_entry* link = entry; link != nullptr; link = link->next) {
      if (++chained > cache.count) return "a chain without end";
      if (link->primary != entry || link->state == HOST_STALE) return "a chain with another's";
    }
  }
  if (chained + stale != cache.count || stale != cache.stale_count) return "entries miscounted";
  const host_entry* local = cache.local_host;
  const bool there = local == nullptr || hostlist_cache_host(&cache, local->name) == local;
  return there ? "" : "a local host that is no host of the table";
}

// The names of a host, in the order of its chain, with a blank between them.
std::string names_of(const host_entry* host) {
  std::string names = host != nullptr ? host->name : "";
  while (host != nullptr && (host = host->next) != nullptr) names += std::string(" ") + host->name;
  return names;
}

const std::string kNoMemory = "kivtrap: SYSTEM error: Cannot allocate memory\n";

// A cache that is soon full.
constexpr hostlist_limits kSmall = {
    .variable = "MAX_TEST_CACHE_SIZE", .least_maximum = 32, .step = 8, .reserve = 6};

struct Cache : hostlist_cache {
  Cache() { limits = &kSmall; }
  ~Cache() {
    hostlist_cache_free(this);
    EXPECT_EQ(pieces_held(), held);
  }
  const long held = pieces_held();

  host_entry* add(const std::string& name, std::vector<const char*> aliases = {},
                  const char* key = nullptr, uint32_t state = HOST_LIVE, int64_t expiry = 1) {
    aliases.push_back(nullptr);
    host_entry* host =
        hostlist_cache_add_host(this, key, name.c_str(), aliases.data(), state, expiry);
    EXPECT_EQ(hostlist_fault(*this), "") << name;
    return host;
  }
  std::string names(const char* name) const { return names_of(hostlist_cache_host(this, name)); }
  // Every name with its state and expiry.
  std::string all() const {
    std::string text;
    for (const host_entry* each : std::span(table, table + count)) {
      text += each->name + ("LPSU"[each->state] + std::to_string(each->expiry)) + " ";
    }
    return text;
  }
};

TEST(HostlistCache, AHostIsOneChain) {
  Cache cache;
  host_entry* a = cache.add("a", {"A2", "a2", "a"}, "10.0.0.1");
  EXPECT_EQ(cache.names("A"), "a A2") << "the address of a new host is added with the others";
  EXPECT_EQ(cache.add("A2", {"a3"}, "10.0.0.1"), a);
  EXPECT_EQ(cache.add("other", {"A4"}, "10.0.0.1", HOST_UNRESOLVED, 7), a) << "by its address";
  EXPECT_EQ(cache.names("a3"), "a A2 10.0.0.1 a3 A4");
  EXPECT_EQ(cache.all(), "10.0.0.1L1 aL7 A2L1 a3L1 A4L7 ");
  EXPECT_EQ(hostlist_cache_add_names(&cache, a, "A3", nullptr), nullptr);
  EXPECT_EQ(hostlist_cache_add_alias(&cache, a, "A3")->expiry, 7) << "again, when added by itself";
  EXPECT_EQ(cache.all(), "10.0.0.1L1 aL7 A2L1 a3L7 A4L7 ");

  cache.add("b", {"A2"});
  EXPECT_EQ(cache.names("a2") + cache.names("a"), "b A2") << "the whole host goes with one name";
  EXPECT_EQ(cache.stale_count, 4);
  cache.add("a", {}, "10.0.0.1", HOST_UNRESOLVED, 5);
  EXPECT_EQ(cache.all(), "10.0.0.1U5 aU5 A2L1 a3S7 A4S7 bL1 ") << "stale names serve again";
  EXPECT_EQ(cache.add("a", {}, "10.0.0.1")->state, HOST_LIVE) << "resolved at last";
  cache.add("u", {"v"}, nullptr, HOST_UNRESOLVED);
  cache.local_host = hostlist_cache_host(&cache, "u");
  hostlist_cache_purge(&cache, HOST_STALE);
  hostlist_cache_purge(&cache, HOST_UNRESOLVED);
  EXPECT_EQ(cache.local_host, nullptr);
  EXPECT_EQ(cache.all(), "10.0.0.1L1 aL1 A2L1 bL1 ");
}

TEST(HostlistCache, EvictsInTheOrderOfNames) {
  const int64_t now = svc_time();
  Cache cache;
  for (int i = 10; i < 39; ++i) {  // every second one has expired
    cache.add("h" + std::to_string(i), {}, nullptr, HOST_LIVE, now + i % 2);
    EXPECT_EQ(cache.capacity, i < 15 ? 8 : i < 23 ? 16 : i < 31 ? 24 : 32) << i;
  }
  cache.local_host = hostlist_cache_host(&cache, "h12");
  cache.add("z");
  EXPECT_EQ(cache.count, 26) << "the reserve is free";
  for (const char* kept : {"h11", "h12", "h13", "h20"}) EXPECT_NE(cache.names(kept), "") << kept;
  for (const char* gone : {"h10", "h14", "h16", "h18"}) EXPECT_EQ(cache.names(gone), "") << gone;
  for (int32_t i = 0; i < cache.count; ++i) cache.table[i]->expiry = now + 9;
  cache.table[0]->state = HOST_PINNED;
  for (const char* name : {"s", "t", "u", "v"}) cache.add(name, {}, nullptr, HOST_LIVE, now + 9);
  EXPECT_EQ(cache.names("h11") + cache.names("h12") + cache.names("h13"), "h11h12")
      << "once none has expired";
  EXPECT_EQ(cache.capacity, 32);
}

TEST(HostlistCache, GrowsUntilFullOfWhatMustStay) {
  err_set(1, ENOMEM);  // makes what lasts
  Cache cache;
  for (const char* name : {"h10", "h11", "h12"}) cache.add(name);
  EXPECT_FALSE((FailingMalloc(0, 1), hostlist_cache_extend(&cache)));
  EXPECT_TRUE(hostlist_cache_extend(&cache) && hostlist_cache_extend(&cache));
  EXPECT_EQ(cache.capacity, 16);
  for (int i = 10; i < 42; ++i) cache.add("h" + std::to_string(i))->state = HOST_PINNED;
  EXPECT_EQ(printed(0, [&] { EXPECT_EQ(cache.add("new"), nullptr); }), kNoMemory);
  cache.table[7]->state = HOST_LIVE;
  EXPECT_NE(cache.add("new"), nullptr);
}

TEST(HostlistCache, TheEnvironmentOnlyRaisesTheMaximum) {
  for (auto [value, maximum] :
       {std::pair{"31", 32}, {"x", 32}, {"33", 33}, {"2147483647", INT32_MAX - 8}}) {
    setenv(kSmall.variable, value, 1);
    Cache cache;
    cache.add("a");
    EXPECT_EQ(cache.maximum_capacity, maximum) << value;
  }
  unsetenv(kSmall.variable);
}

const std::string kHosts =
    "127.0.0.1 localhost manager\n192.0.2.1 node.net box\n192.0.2.3 node.net\n"
    "198.51.100.1 web.net web www\n198.51.100.2 web.net web\n198.51.100.3 mail.net mail\n";

void pass(int64_t seconds) {
  now += seconds;
  svc_time_reset();
}

std::string owned(char* text) {
  std::string copy = text == nullptr ? "(null)" : text;
  free(text);
  return copy;
}

// How many names `work` asks the resolver for.
int asked_by(auto work) {
  const int before = names_asked;
  return (work(), names_asked - before);
}

class NameTest : public MachineTest {
 protected:
  void SetUp() override {
    MachineTest::SetUp();
    if (!IsSkipped()) start_over();
  }
  void TearDown() override {
    if (!IsSkipped()) start_over(hosts_before_, 0);
  }

  static void start_over(const std::string& hosts = kHosts, int64_t time = 1'000'000'000) {
    EXPECT_EQ(hostlist_fault(dns_hostlist_cache), "");
    machine::write_file("/etc/hosts", hosts);
    free_dns_hostlist_cache();
    free_client_hostlist_cache();
    strcpy(dns_hostlist_cache.local_host_name, "node.net");
    pass(time - now);
    resolver_is_down = false;
    virtual_host_hook = nullptr;
    interfaces = nullptr;
    Debug = 0;
  }

 private:
  const std::string hosts_before_ = machine::read_file("/etc/hosts");
};

TEST_F(NameTest, ThisHostAndOthers) {
  EXPECT_EQ(is_myname(nullptr) + is_myname("LocalHost") + samehost("Web", "wEB"), 3);
  EXPECT_EQ(dns_hostlist_cache.count, 0) << "the obvious needs no look-up";
  for (const char* name : {"node", "NODE.net", " box", "192.0.2.3", "manager", ""}) {
    EXPECT_EQ(is_myname(name), 1) << name;
  }
  for (const char* name : {"web", "198.51.100.3", "nobody", "  "}) EXPECT_EQ(is_myname(name), 0);
  EXPECT_EQ(owned(get_primaryhostname(nullptr)), "node.net");
  EXPECT_EQ(owned(get_primaryhostname("www")), "web.net");
  EXPECT_TRUE(samehost("mail", "198.51.100.3") && samehost("web", "198.51.100.2"));
  EXPECT_EQ(samehost(nullptr, "box") + samehost("box", nullptr) + samehost(nullptr, nullptr), 3);
  EXPECT_FALSE(samehost("web", "mail") || samehost("nobody", "NOBODY2") || samehost("web", "no"));
  for (const char* name : {"web", "mail"}) {
    EXPECT_EQ(hostlist_cache_host(&dns_hostlist_cache, name)->state, HOST_LIVE);
  }
}

TEST_F(NameTest, ThisHostIsAskedForItsNameUntilItIsSet) {
  char name[kLocalHostNameSize];
  for (const char* unset : {"", " x"}) {
    strcpy(dns_hostlist_cache.local_host_name, unset);
    EXPECT_EQ(is_validhostname("web"), 1);
    EXPECT_STREQ(dns_hostlist_cache.local_host_name, vx_getlocalhost(name, sizeof name));
  }
}

TEST_F(NameTest, NamesStandBeforeAddresses) {
  constexpr auto none = [](const char*) { return 0; };
  constexpr auto all = [](const char*) { return 1; };
  constexpr auto word = [](const char* name) { return strcmp(name, "localhost") == 0 ? 1 : 0; };
  const std::string unnamed = "Reverse DNS lookup failed for address 203.0.113.9\n";
  const std::tuple<const char*, int (*)(const char* name), std::string, std::string> cases[] = {
      {nullptr, none, "node.net box node localhost manager 192.0.2.1 127.0.0.1 192.0.2.3", unnamed},
      {nullptr, word, "node.net box node 192.0.2.1 192.0.2.3 localhost", unnamed},
      {nullptr, all, "node.net box node localhost", unnamed},
      {"web", all, "web.net web www 198.51.100.1 198.51.100.2", ""},
      {"9.9.9.9", all, "9.9.9.9", "Reverse DNS lookup failed for host 9.9.9.9, address 9.9.9.9\n"},
      {"nobody", all, "nobody", "Illegal/NULL hostname detected (nobody)\n"},
  };
  const std::vector<Interface> there = {
      {1, "192.0.2.1"}, {1, "203.0.113.9"}, {1, "10.0.0.1", AF_INET6}, {9, "127.0.0.1"}};
  for (const auto& [asked, hook, chain, told] : cases) {
    start_over();
    interfaces = &there;
    virtual_host_hook = hook;
    const std::string text = printed(1, [name = asked, &wanted = chain] {
      DnsCacheHold hold;
      EXPECT_EQ(names_of(dns_cache_resolve(&dns_hostlist_cache, name, now)), wanted);
    });
    EXPECT_TRUE(text.ends_with(told) && text.empty() == told.empty()) << text;
    Debug = -1;
    EXPECT_EQ(is_myname("mail"), hook("mail"));
  }
}

TEST_F(NameTest, AskTheResolverOncePerTime) {
  auto all = [] {
    EXPECT_TRUE(is_myname("node") && is_myname("") && is_validhostname("www") && !is_myname("www"));
    EXPECT_FALSE(is_validhostname("nobody") || is_myname("nobody"));
  };
  EXPECT_EQ(asked_by(all), 3);
  now += 5000;
  EXPECT_EQ(asked_by(all), 0) << "the service time stands until it is reset";
  now -= 5000;
  // What is known stays known while the resolver is down.
  const std::tuple<int, int, bool> later[] = {{300, 0, false}, {1, 1, false},   {1499, 1, false},
                                              {1, 2, false},   {1801, 3, true}, {300, 0, true},
                                              {1, 3, true},    {301, 3, false}};
  for (auto [seconds, asked, down] : later) {
    pass(seconds);
    resolver_is_down = down;
    EXPECT_EQ(asked_by(all), asked) << seconds;
  }
  start_over();
  resolver_is_down = true;
  auto none = [] { EXPECT_FALSE(is_myname("node") || is_validhostname(nullptr)); };
  EXPECT_EQ(asked_by(none), 3) << "this host is asked for until it is known";
}

TEST_F(NameTest, NamesMoveFromHostToHost) {
  EXPECT_TRUE(samehost("web", "www") && samehost("mail", "198.51.100.3"));
  machine::write_file("/etc/hosts",
                      kHosts + "198.51.100.7 new www.net www\n198.51.100.8 thief mail.net\n" +
                          "203.0.113.5 localhost\n203.0.113.5 stranger box\n");
  EXPECT_EQ(is_validhostname("new"), 1);
  EXPECT_EQ(asked_by([] { EXPECT_EQ(is_validhostname("web"), 1); }), 1) << "its host was dropped";
  EXPECT_EQ(samehost("mail", "thief"), 0) << "nor is it spared while it is compared";
  for (int round = 0; round < 2; ++round) {
    EXPECT_TRUE(is_myname("stranger") == 0 && is_myname("box") && is_myname("192.0.2.1"));
  }
}

TEST_F(NameTest, TakesNamesOfTheResolversAnswers) {
  EXPECT_EQ(is_myname(vx_ts_gethostbyname("mail")->h_aliases[0]), 0);
  EXPECT_EQ(samehost("web", vx_ts_gethostbyname("mail")->h_name), 0);
  EXPECT_EQ(samehost("mail", vx_ts_gethostbyname("mail")->h_name), 1);
  EXPECT_EQ(owned(get_primaryhostname(vx_ts_gethostbyname("mail")->h_name)), "mail.net");
  start_over();
  EXPECT_EQ(is_validhostname(vx_ts_gethostbyname("mail")->h_name), 1);
}

TEST_F(NameTest, AsksForThisHostUntilItIsResolved) {
  resolver_is_down = true;
  EXPECT_EQ(is_myname("box"), 0);
  resolver_is_down = false;
  pass(301);
  resolver_is_down = true;
  EXPECT_EQ(is_myname("node.net"), 0);
  resolver_is_down = false;
  EXPECT_EQ(is_myname("box"), 1);
  EXPECT_EQ(is_myname("192.0.2.1"), 1);
}

TEST_F(NameTest, AHoldWithinAHoldLeavesTheLock) {
  DnsCacheHold outer;
  { DnsCacheHold inner; }
  in_threads(1, [](int) { EXPECT_EQ(vx_mutex_trylock(hostlist_cache_lock()), 12); });
}

TEST(HostlistCache, NewSlotsAreNull) {
  std::vector<void*> used(8);
  for (void*& block : used) memset(block = malloc(64), 'x', 64);
  for (void* block : used) free(block);
  Cache cache;
  cache.add("a");
  for (int32_t i = 1; i < cache.capacity; ++i) EXPECT_EQ(cache.table[i], nullptr) << i;
}

TEST_F(NameTest, EveryAllocationRefused) {
  EXPECT_EQ(owned(get_primaryhostname("www")), "web.net") << "with what lasts made before";
  bool refused = true;
  for (int granted = 0; refused; ++granted) {
    start_over();
    std::string name;
    std::string made;
    made.reserve(1000);
    pauses = &made;
    const std::string told = printed(0, [&] {
      FailingMalloc failing(granted, 1);
      name = owned(get_primaryhostname("www"));
      refused = failing.failed();
    });
    pauses = nullptr;
    EXPECT_EQ(told.empty() && made.empty(), !refused) << granted;
    EXPECT_TRUE(name == "web.net" || name + told == "(null)" + kNoMemory) << name;
  }
}

TEST_F(NameTest, EightThreads) {
  const std::vector<Interface> sets[] = {{{1, "192.0.2.1"}}, {{1, "192.0.2.3"}}};
  in_threads(8, [&](int thread) {
    const std::string own = "client" + std::to_string(thread);
    const char* aliases[] = {"shared", nullptr};
    const in_addr broadcast = {INADDR_NONE};
    for (int i = 0; i < 50; ++i) {
      EXPECT_TRUE(is_myname("box") && samehost("web", "www") && !is_validhostname(own.c_str()));
      EXPECT_TRUE(client_list_add_client(own.c_str(), aliases) && !is_myaddr(2, &broadcast, 4));
      interfaces = &sets[i % 2];  // the table changes while this host's names are looked up
      if (i % 10 == thread) pass(1801);
    }
  });
}

TEST_F(NameTest, Clients) {
  const char* aliases[] = {"www", "web.net", nullptr};
  EXPECT_EQ(client_list_add_client("web", aliases) + client_list_add_client("mail", nullptr), 2);
  EXPECT_FALSE(client_list_add_client(nullptr, aliases));
  EXPECT_EQ(sameclient("WWW", "web") + sameclient("unknown", "Unknown"), 2);
  EXPECT_FALSE(sameclient("web", "mail") || sameclient("a", "b") || sameclient("web", nullptr) ||
               sameclient(nullptr, nullptr));
  auto copy = [] { EXPECT_EQ((FailingMalloc(0, 1), get_primaryclientname("mail")), nullptr); };
  EXPECT_EQ(printed(0, copy), kNoMemory);
  for (const char* removed : {static_cast<const char*>(nullptr), "unknown", "www"}) {
    EXPECT_EQ(owned(get_primaryclientname("www")), "web");
    client_list_remove_byname(removed);
  }
  EXPECT_EQ(get_primaryclientname("web"), nullptr) << "at once, not with the next purge";
  set_client_cache_update_style(kClientsNeverExpire);
  client_list_add_client("ever", nullptr);
  for (auto [seconds, both] : {std::pair{3600, "mailever"}, {1, "(null)ever"}}) {
    pass(seconds);
    EXPECT_EQ(owned(get_primaryclientname("mail")) + owned(get_primaryclientname("ever")), both);
  }
  free_client_hostlist_cache();
  EXPECT_TRUE(get_client_cache_update_style() == 0 && !get_primaryclientname("ever"));
}

// Registered before anything of the runtime, and so the last to run at exit.
bool leaving = false;
[[maybe_unused]] const int last_of_all = atexit([] {
  sockaddr_in* table = nullptr;
  if (!leaving) return;
  const in_addr loopback = {htonl(INADDR_LOOPBACK)};
  if (is_myaddr(AF_INET, &loopback, 4) != 1) _exit(9);
  const bool gone = get_myaddrs(&table) == 1 && dns_hostlist_cache.table == nullptr &&
                    get_primaryclientname("web") == nullptr;
  _exit(gone && is_validhostname("box") == 1 ? 0 : 1);
});

TEST_F(NameTest, NothingIsLeftAtExit) {
  auto fill = [] { return is_myname("box") == 1 && client_list_add_client("web", nullptr) == 1; };
  EXPECT_EXIT((leaving = fill(), exit(2)), testing::ExitedWithCode(0), "");
}

}  // namespace

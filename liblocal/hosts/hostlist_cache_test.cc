// The cache of hosts by itself. is_mynam_test.cc has the caches of the resolver and the clients.
#include "liblocal/hosts/hostlist_cache.h"

#include <gtest/gtest.h>
#include <strings.h>

#include <cerrno>
#include <cstring>

#include "liblocal/base/svc_time.h"
#include "liblocal/messages/errinfo.h"
#include "tests/fakes.h"
#include "tests/work.h"

using namespace fakes;

namespace {

// Empty when `cache` is sound, else what is wrong with it.
std::string hostlist_fault(const hostlist_cache& cache) {
  int32_t stale = 0, chained = 0;
  for (int32_t i = 0; i < cache.count; ++i) {
    const host_entry* entry = cache.table[i];
    if (i > 0 && strcasecmp(cache.table[i - 1]->name, entry->name) >= 0) return "not sorted";
    const host_entry* host = entry->state == HOST_STALE ? nullptr : entry->primary;
    if (hostlist_cache_host(&cache, entry->name) != host) return "not found";
    if (host == nullptr && (entry->primary != entry || entry->next)) return "a stale chain";
    if (host == nullptr) ++stale;
    if (host != entry) continue;
    for (const host_entry* link = entry; link != nullptr; link = link->next) {
      if (++chained > cache.count) return "a chain without end";
      if (link->primary != entry) return "a chain with another's";
    }
  }
  return chained + stale == cache.count && stale == cache.stale_count ? "" : "miscounted";
}

// A cache that is soon full.
constexpr hostlist_limits kSmall = {
    .variable = "MAX_TEST_CACHE_SIZE", .least_maximum = 32, .step = 8, .reserve = 6};

struct Host {
  std::string name;
  std::vector<const char*> aliases = {};
  const char* key = nullptr;
  uint32_t state = HOST_LIVE;
  int64_t expiry = 1;
};

class HostlistCache : public testing::Test {
 protected:
  static void SetUpTestSuite() { err_set(1, ENOMEM); }  // makes what lasts

  ~HostlistCache() override {
    hostlist_cache_free(&cache);
    EXPECT_EQ(pieces_held(), held_);
  }

  host_entry* add(Host host) {
    host.aliases.push_back(nullptr);
    host_entry* entry = hostlist_cache_add_host(&cache, host.key, host.name.c_str(),
                                                host.aliases.data(), host.state, host.expiry);
    EXPECT_EQ(hostlist_fault(cache), "") << host.name;
    return entry;
  }
  // The names of the host of `name`, in the order of its chain.
  std::string chain(const char* name) {
    std::string names;
    for (const host_entry* each = hostlist_cache_host(&cache, name); each != nullptr;
         each = each->next) {
      names += (names.empty() ? "" : " ") + std::string(each->name);
    }
    return names;
  }
  // Adds h10, h11 and so on, `count` hosts; those with odd numbers expire later.
  void add_hosts(int count, int64_t expiry) {
    for (int i = 10; i < 10 + count; ++i) {
      add({.name = "h" + std::to_string(i), .expiry = expiry + i % 2});
    }
  }

  hostlist_cache cache = {.limits = &kSmall};

 private:
  const long held_ = pieces_held();
};

TEST_F(HostlistCache, FindsAHostByItsKeyBeforeItsName) {
  host_entry* a = add({.name = "a", .aliases = {"A2", "a2", "a"}, .key = "10.0.0.1"});
  EXPECT_EQ(chain("A"), "a A2") << "without the key while the host is new";
  EXPECT_EQ(add({.name = "a2", .key = "10.0.0.1"}), a);
  EXPECT_EQ(add({.name = "b", .aliases = {"a3"}, .key = "10.0.0.1", .expiry = 7}), a);
  EXPECT_EQ(chain("a"), "a A2 10.0.0.1 a3");
  EXPECT_EQ(a->expiry, 7);
}

TEST_F(HostlistCache, DropsAHostThatLosesANameButNotTheLocalHost) {
  cache.local_host = add({.name = "local", .aliases = {"own"}});
  add({.name = "a", .aliases = {"shared", "a2"}});
  add({.name = "b", .aliases = {"own", "shared"}});
  EXPECT_EQ(chain("own"), "local own");
  EXPECT_EQ(chain("shared"), "b shared");
  EXPECT_EQ(chain("a2"), "");
  add({.name = "a"});
  EXPECT_EQ(cache.stale_count, 1) << "a stale entry is used again";
}

TEST_F(HostlistCache, ResolvesAnUnknownNameAnew) {
  add({.name = "a", .aliases = {"a2"}, .state = HOST_UNRESOLVED});
  EXPECT_EQ(add({.name = "a", .key = "10.0.0.1"})->state, HOST_LIVE);
  EXPECT_EQ(chain("a"), "a 10.0.0.1");
  EXPECT_EQ(chain("a2"), "");
}

TEST_F(HostlistCache, PurgesTheHostsOfAState) {
  add({.name = "a"});
  cache.local_host = add({.name = "b", .aliases = {"b2"}, .state = HOST_UNRESOLVED});
  hostlist_cache_purge(&cache, HOST_UNRESOLVED);
  EXPECT_EQ(hostlist_fault(cache), "");
  EXPECT_EQ(cache.count, 1);
  EXPECT_EQ(cache.local_host, nullptr);
}

TEST_F(HostlistCache, GrowsByAStepOfNullSlots) {
  std::vector<void*> used(8);
  for (void*& block : used) memset(block = malloc(64), 'x', 64);
  for (void* block : used) free(block);
  add_hosts(5, 1);
  for (int32_t i = 5; i < 8; ++i) EXPECT_EQ(cache.table[i], nullptr) << i;
  EXPECT_EQ(cache.capacity, 8);
  const host_entry* host = add({.name = "u", .state = HOST_UNRESOLVED});
  EXPECT_EQ(cache.capacity, 16) << "when two slots are left";
  EXPECT_EQ(host->state, HOST_UNRESOLVED);
}

TEST_F(HostlistCache, EvictsExpiredHostsInTheOrderOfTheirNames) {
  add_hosts(29, svc_time());
  cache.local_host = hostlist_cache_host(&cache, "h12");
  add({.name = "z"});
  EXPECT_EQ(cache.capacity, 32);
  EXPECT_EQ(cache.count, 26) << "the reserve is free";
  for (const char* kept : {"h11", "h12", "h13", "h20"}) EXPECT_EQ(chain(kept), kept);
  for (const char* gone : {"h10", "h14", "h16", "h18"}) EXPECT_EQ(chain(gone), "") << gone;
}

TEST_F(HostlistCache, EvictsOtherHostsWhenNoneHasExpired) {
  add_hosts(29, svc_time() + 9);
  cache.table[0]->state = HOST_PINNED;
  add({.name = "z", .expiry = svc_time() + 9});
  for (const char* kept : {"h10", "h15", "z"}) EXPECT_EQ(chain(kept), kept);
  for (const char* gone : {"h11", "h12", "h13", "h14"}) EXPECT_EQ(chain(gone), "") << gone;
}

TEST_F(HostlistCache, RefusesAHostWhenNoneMayBeEvicted) {
  for (int i = 10; i < 42; ++i) add({.name = "h" + std::to_string(i)})->state = HOST_PINNED;
  EXPECT_EQ(printed(0, [this] { EXPECT_EQ(add({.name = "new"}), nullptr); }),
            "kivtrap: SYSTEM error: Cannot allocate memory\n");
  cache.table[7]->state = HOST_LIVE;
  EXPECT_NE(add({.name = "new"}), nullptr);
}

TEST_F(HostlistCache, GrowsOnlyWithMemoryAndForTheReserve) {
  add_hosts(3, 1);
  {
    const FailingMalloc once(0, 1);
    EXPECT_FALSE(hostlist_cache_extend(&cache));
  }
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(hostlist_cache_extend(&cache));
  EXPECT_EQ(cache.capacity, 16);
}

TEST_F(HostlistCache, TakesALargerMaximumFromTheEnvironment) {
  const struct {
    const char* value;
    int32_t maximum;
  } rows[] = {{"31", 32}, {"33", 33}, {"2147483647", INT32_MAX - 8}};
  for (const auto& row : rows) {
    setenv(kSmall.variable, row.value, 1);
    add({.name = "a"});
    EXPECT_EQ(cache.maximum_capacity, row.maximum) << row.value;
    hostlist_cache_free(&cache);
  }
  unsetenv(kSmall.variable);
}

}  // namespace

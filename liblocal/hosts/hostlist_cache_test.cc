#include "liblocal/hosts/hostlist_cache.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <span>
#include <string>
#include <vector>

#include "liblocal/hosts/svc_time.h"
#include "tests/failing_malloc.h"
#include "tests/hostlist_check.h"
#include "tests/printed.h"

namespace {

// A cache that is soon full.
constexpr hostlist_limits kSmall = {
    .variable = "MAX_TEST_CACHE_SIZE", .least_maximum = 32, .step = 8, .reserve = 6};

struct Cache : hostlist_cache {
  Cache() { limits = &kSmall; }
  ~Cache() { hostlist_cache_free(this); }

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
  hostlist_cache_purge(&cache, HOST_UNRESOLVED);
  EXPECT_EQ(cache.local_host, nullptr);
  hostlist_cache_purge(&cache, HOST_STALE);
  EXPECT_EQ(cache.all(), "10.0.0.1L1 aL1 A2L1 bL1 ");
}

TEST(HostlistCache, EvictsInTheOrderOfNames) {
  const int64_t now = svc_time();
  Cache cache;
  for (int i = 10; i < 39; ++i) {  // every second one has expired
    cache.add("h" + std::to_string(i), {}, nullptr, HOST_LIVE, now + i % 2);
    EXPECT_EQ(cache.capacity, i < 15 ? 8 : i < 23 ? 16 : i < 31 ? 24 : 32) << i;
  }
  cache.local_host = hostlist_cache_host(&cache, "h10");
  cache.add("z");
  EXPECT_EQ(cache.count, 26) << "the reserve is free";
  for (const char* kept : {"h10", "h11", "h13", "h20"}) EXPECT_NE(cache.names(kept), "") << kept;
  for (const char* gone : {"h12", "h14", "h16", "h18"}) EXPECT_EQ(cache.names(gone), "") << gone;
  for (int32_t i = 0; i < cache.count; ++i) cache.table[i]->expiry = now + 9;
  cache.table[1]->state = HOST_PINNED;
  for (const char* name : {"s", "t", "u", "v"}) cache.add(name, {}, nullptr, HOST_LIVE, now + 9);
  EXPECT_EQ(cache.names("h11") + cache.names("h13"), "h11") << "once none has expired";
  EXPECT_EQ(cache.capacity, 32);
}

TEST(HostlistCache, TheHostOfTheLastSlotsIsLiveUnlessUnknown) {
  for (uint32_t state : {HOST_LIVE, HOST_PINNED, HOST_UNRESOLVED}) {
    Cache cache;
    for (const char* name : {"a", "b", "c", "d"}) cache.add(name);
    host_entry* host = cache.add("e");
    host->state = state;
    EXPECT_TRUE(!hostlist_cache_add_names(&cache, host, "f", nullptr) && cache.capacity == 16);
    EXPECT_EQ(host->state, state == HOST_UNRESOLVED ? HOST_UNRESOLVED : HOST_LIVE);
  }
}

TEST(HostlistCache, GrowsUntilFullOfWhatMustStay) {
  Cache cache;
  for (const char* name : {"h10", "h11", "h12"}) cache.add(name);
  EXPECT_FALSE((FailingMalloc(0, 1), hostlist_cache_extend(&cache)));
  EXPECT_TRUE(hostlist_cache_extend(&cache) && hostlist_cache_extend(&cache));
  EXPECT_EQ(cache.capacity, 16);
  for (int i = 10; i < 42; ++i) cache.add("h" + std::to_string(i))->state = HOST_PINNED;
  EXPECT_EQ(printed(0, [&] { EXPECT_EQ(cache.add("new"), nullptr); }),
            "kivtrap: SYSTEM error: Cannot allocate memory\n");
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

}  // namespace

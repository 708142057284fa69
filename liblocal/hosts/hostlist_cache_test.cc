// The cache of hosts by itself. hosts_test.cc has the caches of the resolver and the clients.
#include "liblocal/hosts/hostlist_cache.h"

#include <cerrno>

#include "liblocal/base/svc_time.h"
#include "liblocal/messages/errinfo.h"
#include "tests/fakes.h"
#include "tests/work.h"

namespace {

constexpr hostlist_limits kSmall = {
    .variable = "MAX_TEST_CACHE_SIZE", .least_maximum = 32, .step = 8, .reserve = 6};

class HostlistCache : public testing::Test {
 protected:
  static void SetUpTestSuite() { err_set(1, ENOMEM); }  // makes what lasts

  ~HostlistCache() override {
    hostlist_cache_free(&cache);
    EXPECT_EQ(fakes::pieces_held(), held_);
  }

  // Then each name of the table is found, and the stale ones are counted.
  host_entry* add(const std::string& name, int64_t expiry = 1, const char* alias = nullptr) {
    const char* aliases[] = {alias, nullptr};
    host_entry* host =
        hostlist_cache_add_host(&cache, nullptr, name.c_str(), aliases, HOST_LIVE, expiry);
    int32_t stale = 0;
    for (int32_t i = 0; i < cache.count; ++i) {
      const host_entry* entry = cache.table[i];
      EXPECT_EQ(hostlist_cache_find(&cache, entry->name).entry, entry);
      if (entry->state == HOST_STALE) ++stale;
    }
    EXPECT_EQ(cache.stale_count, stale);
    return host;
  }
  const host_entry* host(const char* name) const { return hostlist_cache_host(&cache, name); }

  hostlist_cache cache = {.limits = &kSmall};

 private:
  const long held_ = fakes::pieces_held();
};

TEST_F(HostlistCache, DropsAHostThatLosesAName) {
  const host_entry* local = cache.local_host = add("local", 1, "own");
  EXPECT_TRUE(hostlist_cache_extend(&cache));
  EXPECT_EQ(cache.capacity, 8) << "the reserve is free";
  add("a", 1, "shared");
  const host_entry* b = add("b", 1, "shared");
  add("b", 1, "own");
  EXPECT_EQ(host("own"), local);
  EXPECT_EQ(host("SHARED"), b);
  EXPECT_EQ(host("a"), nullptr);
  EXPECT_EQ(cache.stale_count, 1);
  add("a");
  EXPECT_EQ(cache.stale_count, 0);  // a stale entry is used again
}

TEST_F(HostlistCache, EvictsExpiredHostsFirst) {
  for (int i = 10; i < 39; ++i) add("h" + std::to_string(i), svc_time() + 9);
  cache.table[0]->state = HOST_PINNED;
  cache.local_host = cache.table[2];
  cache.table[8]->expiry = svc_time();
  add("a", svc_time() + 9);
  EXPECT_EQ(cache.capacity, 32);
  EXPECT_EQ(cache.count, 26);  // the reserve is free
  EXPECT_EQ(cache.local_host, host("h12"));
  for (const char* kept : {"a", "h10", "h15"}) EXPECT_NE(host(kept), nullptr) << kept;
  for (const char* gone : {"h11", "h13", "h14", "h18"}) EXPECT_EQ(host(gone), nullptr) << gone;
}

TEST_F(HostlistCache, RefusesAHostWhenFull) {
  for (int i = 10; i < 42; ++i) add("h" + std::to_string(i))->state = HOST_PINNED;
  EXPECT_EQ(printed(0, [this] { EXPECT_EQ(add("new"), nullptr); }),
            "kivtrap: SYSTEM error: Cannot allocate memory\n");
  cache.table[0]->state = HOST_LIVE;
  EXPECT_NE(add("new"), nullptr);
}

}  // namespace

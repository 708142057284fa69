// The cache of hosts by itself. is_mynam_test.cc has the caches of the resolver and the clients.
#include "liblocal/hosts/hostlist_cache.h"

#include <gtest/gtest.h>
#include <strings.h>

#include <cerrno>

#include "liblocal/base/svc_time.h"
#include "liblocal/messages/errinfo.h"
#include "tests/fakes.h"
#include "tests/work.h"

using namespace fakes;

namespace {

// The table is sorted, each of its names is found, and the stale ones are counted.
void expect_sound(const hostlist_cache& cache) {
  int32_t stale = 0;
  for (int32_t i = 0; i < cache.count; ++i) {
    const host_entry* entry = cache.table[i];
    if (i > 0) {
      EXPECT_LT(strcasecmp(cache.table[i - 1]->name, entry->name), 0);
    }
    EXPECT_EQ(hostlist_cache_find(&cache, entry->name).entry, entry);
    if (entry->state == HOST_STALE) ++stale;
  }
  EXPECT_EQ(cache.stale_count, stale);
}

// A cache that is soon full.
constexpr hostlist_limits kSmall = {
    .variable = "MAX_TEST_CACHE_SIZE", .least_maximum = 32, .step = 8, .reserve = 6};

class HostlistCache : public testing::Test {
 protected:
  static void SetUpTestSuite() { err_set(1, ENOMEM); }  // makes what lasts

  ~HostlistCache() override {
    hostlist_cache_free(&cache);
    EXPECT_EQ(pieces_held(), held_);
  }

  host_entry* add(const std::string& name, int64_t expiry = 1, const char* alias = nullptr) {
    const char* aliases[] = {alias, nullptr};
    host_entry* host =
        hostlist_cache_add_host(&cache, nullptr, name.c_str(), aliases, HOST_LIVE, expiry);
    expect_sound(cache);
    return host;
  }
  bool has(const char* name) const { return hostlist_cache_host(&cache, name) != nullptr; }
  // Adds h10, h11 and so on, `count` hosts.
  void add_hosts(int count, int64_t expiry) {
    for (int i = 10; i < 10 + count; ++i) add("h" + std::to_string(i), expiry);
  }

  hostlist_cache cache = {.limits = &kSmall};

 private:
  const long held_ = pieces_held();
};

TEST_F(HostlistCache, DropsAHostThatLosesANameButNotTheLocalHost) {
  const host_entry* local = cache.local_host = add("local", 1, "own");
  add("a", 1, "shared");
  const host_entry* b = add("b", 1, "shared");
  add("b", 1, "own");
  EXPECT_EQ(hostlist_cache_host(&cache, "own"), local);
  EXPECT_EQ(hostlist_cache_host(&cache, "SHARED"), b);
  EXPECT_FALSE(has("a"));
  EXPECT_EQ(cache.stale_count, 1);
  add("a");
  EXPECT_EQ(cache.stale_count, 0) << "a stale entry is used again";
}

TEST_F(HostlistCache, EvictsExpiredHostsAndThenOthersInOrder) {
  add_hosts(29, svc_time() + 9);
  cache.table[0]->state = HOST_PINNED;
  cache.local_host = cache.table[2];
  cache.table[8]->expiry = svc_time();
  add("a", svc_time() + 9);
  EXPECT_EQ(cache.capacity, 32);
  EXPECT_EQ(cache.count, 26) << "the reserve is free";
  for (const char* kept : {"a", "h10", "h12", "h15"}) EXPECT_TRUE(has(kept)) << kept;
  for (const char* gone : {"h11", "h13", "h14", "h18"}) EXPECT_FALSE(has(gone)) << gone;
}

TEST_F(HostlistCache, RefusesAHostWhenNoneMayBeEvicted) {
  for (int i = 10; i < 42; ++i) add("h" + std::to_string(i))->state = HOST_PINNED;
  EXPECT_EQ(printed(0, [this] { EXPECT_EQ(add("new"), nullptr); }),
            "kivtrap: SYSTEM error: Cannot allocate memory\n");
  cache.table[7]->state = HOST_LIVE;
  EXPECT_NE(add("new"), nullptr);
}

TEST_F(HostlistCache, TakesALargerMaximumFromTheEnvironment) {
  setenv(kSmall.variable, "2147483647", 1);
  add("a");
  unsetenv(kSmall.variable);
  EXPECT_EQ(cache.maximum_capacity, INT32_MAX - 8) << "which the last step may pass";
}

}  // namespace

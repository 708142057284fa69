#include "liblocal/hosts/hostlist_cache.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <random>

#include "liblocal/hosts/svc_time.h"
#include "liblocal/messages/errinfo.h"
#include "tests/failing_malloc.h"
#include "tests/hostlist_check.h"
#include "tests/printed.h"

namespace {

// A cache that is soon full.
constexpr hostlist_limits kSmall = {
    .variable = "MAX_TEST_CACHE_SIZE", .least_maximum = 32, .step = 8, .reserve = 6};

struct Cache : hostlist_cache {
  explicit Cache(const hostlist_limits* wanted = &kSmall) { limits = wanted; }
  ~Cache() { hostlist_cache_free(this); }

  host_entry* add(const char* name, std::vector<const char*> aliases = {},
                  const char* key = nullptr, uint32_t state = HOST_LIVE, int64_t expiry = 1) {
    aliases.push_back(nullptr);
    host_entry* host = hostlist_cache_add_host(this, key, name, aliases.data(), state, expiry);
    EXPECT_EQ(hostlist_fault(*this), "") << name;
    return host;
  }
  std::string names(const char* name) const { return names_of(hostlist_cache_host(this, name)); }
};

TEST(HostlistCache, ChainsAndDrops) {
  Cache cache;
  host_entry* a = cache.add("a", {"A2", "a2", "a"}, "10.0.0.1");
  EXPECT_EQ(cache.names("A"), "a 10.0.0.1 A2");
  EXPECT_EQ(cache.add("other", {"a3"}, "10.0.0.1", HOST_LIVE, 7), a) << "by its address";
  EXPECT_EQ(cache.names("a3"), "a 10.0.0.1 A2 a3");
  EXPECT_EQ(a->expiry, 7);
  EXPECT_EQ(cache.names("other"), "") << "only the address and the aliases are added";

  cache.add("b", {"A2"});
  EXPECT_EQ(cache.names("a2"), "b A2");
  EXPECT_EQ(cache.names("a"), "") << "the whole host goes with one name";
  EXPECT_EQ(cache.stale_count, 3);
  cache.add("a", {}, "10.0.0.1", HOST_UNRESOLVED);
  EXPECT_EQ(cache.names("a"), "a 10.0.0.1");
  EXPECT_EQ(cache.stale_count, 1) << "stale names serve again";
  EXPECT_EQ(cache.add("a")->state, HOST_LIVE) << "resolved at last";
  hostlist_cache_purge(&cache, HOST_STALE);
  EXPECT_EQ(cache.count, 3);
  EXPECT_EQ(hostlist_fault(cache), "");
}

TEST(HostlistCache, GrowsAndEvicts) {
  const int64_t now = svc_time();
  Cache cache;
  for (int i = 10; i < 39; ++i) {
    // Every second host has expired.
    cache.add(("h" + std::to_string(i)).c_str(), {}, nullptr, HOST_LIVE,
              i % 2 == 0 ? now : now + 9);
  }
  EXPECT_EQ(cache.capacity, 32);
  cache.local_host = hostlist_cache_host(&cache, "h10");
  cache.add("z");
  EXPECT_EQ(cache.count, 26) << "the reserve is free";
  for (const char* name : {"h10", "h11", "h13", "h20", "h38", "z"}) {
    EXPECT_NE(cache.names(name), "") << name;
  }
  for (const char* name : {"h12", "h14", "h16", "h18"}) EXPECT_EQ(cache.names(name), "") << name;
  for (int32_t i = 0; i < cache.count; ++i) cache.table[i]->expiry = now + 9;
  cache.table[1]->state = HOST_PINNED;
  for (const char* name : {"s", "t", "u", "v"}) cache.add(name, {}, nullptr, HOST_LIVE, now + 9);
  EXPECT_EQ(cache.names("h11"), "h11");
  EXPECT_EQ(cache.names("h13"), "") << "in the order of names, once none has expired";
  EXPECT_EQ(cache.capacity, 32);
}

TEST(HostlistCache, FullOfWhatMustStay) {
  Cache cache;
  for (int i = 10; i < 42; ++i) {
    cache.add(("h" + std::to_string(i)).c_str())->state = HOST_PINNED;
  }
  EXPECT_EQ(printed(0, [&] { EXPECT_EQ(cache.add("new"), nullptr); }),
            "kivtrap: SYSTEM error: Cannot allocate memory\n");
  cache.table[7]->state = HOST_LIVE;
  EXPECT_NE(cache.add("new"), nullptr);
}

TEST(HostlistCache, TheEnvironmentOnlyRaisesTheMaximum) {
  const std::pair<const char*, int32_t> cases[] = {
      {"31", 32}, {"words", 32}, {"33", 33}, {"2147483647", INT32_MAX - 8}};
  for (const auto& [value, maximum] : cases) {
    setenv(kSmall.variable, value, 1);
    Cache cache;
    cache.add("a");
    EXPECT_EQ(cache.maximum_capacity, maximum) << value;
  }
  unsetenv(kSmall.variable);
}

TEST(HostlistCache, EveryAllocationRefused) {
  err_set(1, ENOMEM);  // its tables wait for memory
  testing::internal::CaptureStderr();
  for (int granted = 0;; ++granted) {
    Cache cache;
    for (const char* name : {"b", "d", "f"}) cache.add(name, {});
    FailingMalloc failing(granted);
    const char* aliases[] = {"c", "e", "g", "h", nullptr};
    host_entry* host = hostlist_cache_add_host(&cache, "10.0.0.1", "a", aliases, HOST_LIVE, 1);
    EXPECT_EQ(hostlist_fault(cache), "");
    EXPECT_EQ(cache.names("c"), host == nullptr ? "" : "a 10.0.0.1 c e g h") << "all or nothing";
    if (!failing.failed()) break;
  }
  testing::internal::GetCapturedStderr();
}

// Every operation in any order, on few names: the table and the chains stay sound, what
// an addition said is there, and what must stay stays.
TEST(HostlistCache, ARandomWalk) {
  std::mt19937 random;
  auto pick = [&](int count) { return static_cast<int>(random() % static_cast<unsigned>(count)); };
  const int64_t now = svc_time();
  Cache cache;
  for (int step = 0; step < 20'000; ++step) {
    std::string names[6];
    for (std::string& name : names) name = "n" + std::to_string(pick(60));
    host_entry* host = hostlist_cache_host(&cache, names[0].c_str());
    const std::string local = names_of(cache.local_host);
    switch (pick(10)) {
      case 0:
        if (host != nullptr && host != cache.local_host) hostlist_cache_drop_host(&cache, host);
        break;
      case 1:
        hostlist_cache_purge(&cache, pick(2) == 0 ? HOST_STALE : HOST_UNRESOLVED);
        break;
      case 2:
        hostlist_cache_trim(&cache);
        break;
      case 3:
        // Small, so that it never fills the table with what must stay.
        if (host == nullptr || host->state != HOST_LIVE) host = nullptr;
        cache.local_host = names_of(host).size() > 20 ? nullptr : host;
        continue;
      default:
        const char* aliases[] = {names[2].c_str(), names[3].c_str(), names[4].c_str(), nullptr};
        aliases[pick(4)] = nullptr;
        const uint32_t state = pick(5) == 0 ? HOST_UNRESOLVED : HOST_LIVE;
        host = hostlist_cache_add_host(&cache, pick(2) == 0 ? nullptr : names[1].c_str(),
                                       names[0].c_str(), aliases, state, now + pick(3) - 1);
        ASSERT_NE(host, nullptr) << step;
        for (int i = 0; aliases[i] != nullptr; ++i) {
          const host_entry* owner = hostlist_cache_host(&cache, aliases[i]);
          ASSERT_TRUE(owner == host || owner == cache.local_host) << step;
        }
    }
    ASSERT_EQ(hostlist_fault(cache), "") << step;
    ASSERT_EQ(names_of(cache.local_host).substr(0, local.size()), local) << step;
  }
}

}  // namespace

#include "liblocal/hostlist_cache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>

#include "liblocal/errinfo.h"
#include "liblocal/svc_time.h"
#include "tests/failing_malloc.h"
#include "tests/hostlist_check.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

// As many steps as take a moment, wherever the test runs.
int steps() {
  const char* preloaded = getenv("LD_PRELOAD");
  bool in_valgrind = preloaded != nullptr && strstr(preloaded, "vgpreload") != nullptr;
  return in_valgrind ? 30'000 : kSanitized ? 200'000 : 2'000'000;
}

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
  EXPECT_EQ(cache.add("a2", {}, "10.0.0.9"), a) << "by its name";

  cache.add("b", {"A2"});
  EXPECT_EQ(cache.names("a2"), "b A2");
  EXPECT_EQ(cache.names("a"), "") << "the whole host goes with one name";
  EXPECT_EQ(cache.stale_count, 4);
  cache.add("a", {}, "10.0.0.1", HOST_UNRESOLVED);
  EXPECT_EQ(cache.names("a"), "a 10.0.0.1");
  EXPECT_EQ(cache.stale_count, 2) << "stale names serve again";
  EXPECT_EQ(cache.add("a")->state, HOST_LIVE) << "resolved at last";
  hostlist_cache_purge(&cache, HOST_STALE);
  EXPECT_EQ(cache.count, 3);
  EXPECT_EQ(hostlist_fault(cache), "");
}

TEST(HostlistCache, TheLocalHostKeepsItsNames) {
  Cache cache;
  cache.local_host = cache.add("me", {"localhost"});
  cache.add("stranger", {"me", "LOCALHOST", "mine"});
  EXPECT_EQ(cache.names("me"), "me localhost");
  EXPECT_EQ(cache.names("mine"), "stranger mine");
  hostlist_cache_drop_host(&cache, cache.local_host);
  EXPECT_EQ(cache.local_host, nullptr);
  EXPECT_EQ(hostlist_fault(cache), "");
}

TEST(HostlistCache, PurgesByState) {
  Cache cache;
  cache.add("live", {"l2"});
  cache.add("gone", {}, nullptr, HOST_UNRESOLVED);
  host_entry* pinned = cache.add("pinned", {"p2"});
  pinned->state = HOST_PINNED;
  cache.local_host = hostlist_cache_host(&cache, "live");
  hostlist_cache_purge(&cache, HOST_UNRESOLVED);
  EXPECT_EQ(cache.count, 4);
  hostlist_cache_purge(&cache, HOST_LIVE);
  EXPECT_EQ(cache.names("p2"), "pinned p2");
  EXPECT_EQ(cache.count, 2);
  EXPECT_EQ(cache.local_host, nullptr);
  EXPECT_EQ(hostlist_fault(cache), "");
}

TEST(HostlistCache, GrowsAndEvicts) {
  const int64_t now = svc_time();
  Cache cache;
  std::string capacities;
  for (int i = 10; i < 39; ++i) {
    // Every second host has expired.
    cache.add(("h" + std::to_string(i)).c_str(), {}, nullptr, HOST_LIVE,
              i % 2 == 0 ? now : now + 9);
    capacities += std::to_string(cache.capacity) + " ";
  }
  EXPECT_EQ(capacities,
            "8 8 8 8 8 16 16 16 16 16 16 16 16 24 24 24 24 24 24 24 24 32 32 32 32 32 32 32 32 ");
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
  int added = 0;
  testing::internal::CaptureStderr();
  for (int i = 10; i < 60; ++i) {
    host_entry* host = cache.add(("h" + std::to_string(i)).c_str());
    if (host == nullptr) continue;
    ++added;
    host->state = HOST_PINNED;
  }
  EXPECT_NE(testing::internal::GetCapturedStderr().find("SYSTEM error: Cannot allocate memory"),
            std::string::npos);
  EXPECT_EQ(added, 32);
  EXPECT_EQ(cache.names("h41"), "h41");
  cache.table[7]->state = HOST_LIVE;
  EXPECT_NE(cache.add("new"), nullptr);
  EXPECT_EQ(cache.names("h17"), "");
}

TEST(HostlistCache, UnresolvedStaysSoWhenTheTableGrows) {
  Cache cache;
  for (int i = 10; i < 30; ++i) {
    host_entry* host = cache.add(("h" + std::to_string(i)).c_str(), {}, nullptr, HOST_UNRESOLVED);
    EXPECT_EQ(host->state, HOST_UNRESOLVED);
  }
}

TEST(HostlistCache, TheEnvironmentOnlyRaisesTheMaximum) {
  const std::pair<const char*, int32_t> cases[] = {
      {"31", 32}, {"-1", 32}, {"words", 32}, {"33", 33}, {"2147483647", INT32_MAX - 8}};
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
    if (host != nullptr) {
      EXPECT_EQ(names_of(host), "a 10.0.0.1 c e g h");
      if (!failing.failed()) break;
    } else {
      EXPECT_EQ(cache.names("a") + cache.names("c"), "") << "the half-built host is dropped";
    }
    ASSERT_LT(granted, 100);
  }
  testing::internal::GetCapturedStderr();
}

// What the cache should know: for each name the number of its host, and for each host
// what counts of it.
struct Model {
  struct Host {
    uint32_t state;
    int64_t expiry;
  };
  std::map<std::string, int> names;
  std::map<int, Host> hosts;
  int local = 0;
  int last = 0;

  int host_of(const std::string& name) const {
    auto known = names.find(name);
    return known == names.end() ? 0 : known->second;
  }
  void drop(int host) {
    std::erase_if(names, [host](const auto& each) { return each.second == host; });
    hosts.erase(host);
    if (host == local) local = 0;
  }
  void claim(int host, const std::string& name) {
    int owner = host_of(name);
    if (owner == host || (owner != 0 && owner == local)) return;
    if (owner != 0) drop(owner);
    names[name] = host;
  }
  int add(const std::string& key, const std::string& name, const std::vector<std::string>& aliases,
          uint32_t state, int64_t expiry) {
    auto is_live = [this](int host) { return host != 0 && hosts[host].state <= HOST_PINNED; };
    int host = key.empty() ? 0 : host_of(key);
    if (!is_live(host)) host = host_of(name);
    if (is_live(host)) {
      hosts[host].expiry = expiry;
    } else {
      if (host != 0) drop(host);
      host = ++last;
      hosts[host] = {state, expiry};
      names[name] = host;
    }
    if (!key.empty()) claim(host, key);
    for (const std::string& alias : aliases) claim(host, alias);
    return host;
  }
};

class RandomWalk {
 public:
  void step() {
    switch (pick(0, 15)) {
      case 0:
        if (int host = model_.host_of(name_)) {
          hostlist_cache_drop_host(&cache_, entry());
          model_.drop(host);
        }
        break;
      case 1:
        hostlist_cache_purge(&cache_, HOST_STALE);
        ASSERT_EQ(cache_.stale_count, 0);
        break;
      case 2:
        purge_unresolved();
        break;
      case 3:
        hostlist_cache_trim(&cache_);
        evicting_ = true;
        break;
      case 4:
        pin(true);
        break;
      case 5:
        pin(false);
        break;
      case 6:
        if (int host = model_.host_of(name_)) {
          cache_.local_host = entry();
          model_.local = host;
        }
        break;
      case 7:
        expire();
        break;
      default:
        add();
    }
    check();
    name_ = random_name();
  }

 private:
  int pick(int low, int high) {
    return low + static_cast<int>(random_() % static_cast<unsigned>(high - low + 1));
  }
  std::string random_name() { return "n" + std::to_string(pick(0, 59)); }
  host_entry* entry() const { return hostlist_cache_host(&cache_, name_.c_str()); }

  void add() {
    std::vector<std::string> aliases(static_cast<size_t>(pick(0, 3)));
    for (std::string& alias : aliases) alias = random_name();
    const std::string key = pick(0, 1) == 0 ? "" : random_name();
    std::vector<const char*> list(aliases.size() + 1);  // the last one null
    std::transform(aliases.begin(), aliases.end(), list.begin(),
                   [](const std::string& alias) { return alias.c_str(); });
    const uint32_t state = pick(0, 4) == 0 ? HOST_UNRESOLVED : HOST_LIVE;
    const int64_t expiry = now_ + pick(-1, 1);
    host_entry* host = hostlist_cache_add_host(&cache_, key.empty() ? nullptr : key.c_str(),
                                               name_.c_str(), list.data(), state, expiry);
    ASSERT_NE(host, nullptr);
    int number = model_.add(key, name_, aliases, state, expiry);
    ASSERT_EQ(host->expiry, expiry);
    ASSERT_EQ(host->state, model_.hosts[number].state);
    evicting_ = true;
    // All that must stay together fits into the table: the local host, two pinned ones
    // and one that is being built.
    if (std::count_if(model_.names.begin(), model_.names.end(),
                      [number](const auto& each) { return each.second == number; }) > 6) {
      hostlist_cache_drop_host(&cache_, host);
      model_.drop(number);
    }
  }

  void purge_unresolved() {
    hostlist_cache_purge(&cache_, HOST_UNRESOLVED);
    std::vector<int> gone;
    for (const auto& [number, host] : model_.hosts) {
      if (host.state == HOST_UNRESOLVED) gone.push_back(number);
    }
    for (int number : gone) model_.drop(number);
  }

  void pin(bool on) {
    int number = model_.host_of(name_);
    if (number == 0 || model_.hosts[number].state > HOST_PINNED) return;
    // Few, since what is pinned cannot make room.
    if (on && ++pinned_ > 2) return;
    if (!on) pinned_ = 0;
    for (auto& [each, host] : model_.hosts) {
      if (!on && host.state == HOST_PINNED) host.state = HOST_LIVE;
    }
    for (int32_t i = 0; !on && i < cache_.count; ++i) {
      if (cache_.table[i]->state == HOST_PINNED) cache_.table[i]->state = HOST_LIVE;
    }
    if (!on) return;
    entry()->state = HOST_PINNED;
    model_.hosts[number].state = HOST_PINNED;
  }

  void expire() {
    if (host_entry* host = entry()) {
      host->expiry = now_ - 1;
      model_.hosts[model_.host_of(name_)].expiry = now_ - 1;
    }
  }

  // Removes from the model what the cache evicted; only some operations may, and only
  // hosts that are neither local nor pinned, as a whole.
  void follow_eviction() {
    const std::map<std::string, int> before = model_.names;
    for (const auto& [name, number] : before) {
      if (model_.host_of(name) == 0 || hostlist_cache_host(&cache_, name.c_str()) != nullptr)
        continue;
      ASSERT_TRUE(evicting_) << name;
      ASSERT_NE(number, model_.local);
      ASSERT_NE(model_.hosts[number].state, HOST_PINNED);
      model_.drop(number);
    }
    ++evictions;
  }

  void check() {
    ASSERT_EQ(hostlist_fault(cache_), "");
    auto living = [this] { return static_cast<size_t>(cache_.count - cache_.stale_count); };
    if (living() != model_.names.size()) follow_eviction();
    evicting_ = false;
    ASSERT_EQ(living(), model_.names.size());
    // One host and one name, looked at closely.
    host_entry* host = entry();
    int number = model_.host_of(name_);
    ASSERT_EQ(host == nullptr, number == 0) << name_;
    if (host == nullptr) return;
    ASSERT_EQ(host->expiry, model_.hosts[number].expiry);
    ASSERT_EQ(host == cache_.local_host, number == model_.local);
    for (const host_entry* each = host; each != nullptr; each = each->next) {
      ASSERT_EQ(model_.host_of(each->name), number) << each->name;
    }
  }

  Cache cache_;
  Model model_;
  std::mt19937 random_;
  std::string name_ = "n0";
  int64_t now_ = svc_time();
  int pinned_ = 0;
  bool evicting_ = false;

 public:
  int evictions = 0;
};

TEST(HostlistCache, ARandomWalkBesideAModel) {
  RandomWalk walk;
  for (int i = 0; i < steps(); ++i) {
    walk.step();
    if (HasFatalFailure()) FAIL() << "step " << i;
  }
  EXPECT_GT(walk.evictions, steps() / 1000);
}

}  // namespace

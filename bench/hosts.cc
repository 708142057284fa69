// The caches of hosts beside a sorted array of names. Run on the test machine: this host's own
// name is resolved once.
#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <list>
#include <random>
#include <string>
#include <vector>

#include "bench/compare.h"
#include "liblocal/hosts/dns_cache.h"
#include "liblocal/hosts/is_mynam.h"

namespace {

// `count` names, in the order that they are added and asked for.
std::vector<std::string> host_names(int count) {
  std::vector<std::string> names;
  for (int i = 0; i < count; ++i) names.push_back("client-" + std::to_string(i) + ".example.net");
  std::shuffle(names.begin(), names.end(), std::mt19937());
  return names;
}

struct SortedNames {
  std::vector<char*> table;

  auto place(const char* name) {
    return std::lower_bound(table.begin(), table.end(), name,
                            [](const char* a, const char* b) { return strcasecmp(a, b) < 0; });
  }
  void add(const char* name) { table.insert(place(name), strdup(name)); }
  ~SortedNames() { std::ranges::for_each(table, free); }
};

void add_host(hostlist_cache* cache, const std::string& name) {
  require(hostlist_cache_add_host(cache, nullptr, name.c_str(), nullptr, HOST_LIVE,
                                  kHostNeverExpires) != nullptr);
}

void test_names(const char* title, double budget, int count) {
  const std::vector<std::string> names = host_names(count);
  require(is_myname("testhost") == 1);
  SortedNames sorted;
  for (const std::string& name : names) {
    DnsCacheHold hold;
    add_host(&dns_hostlist_cache, name);
    sorted.add(name.c_str());
  }
  // So many that the processor does not learn their order.
  std::vector<const char*> asked(100'000);
  std::minstd_rand random;
  for (const char*& name : asked) name = names[random() % names.size()].c_str();
  size_t next = 0;
  auto next_name = [&] { return asked[next++ % asked.size()]; };
  compare(
      title, budget, [&] { touch(is_myname(next_name())); },
      [&] {
        const char* name = next_name();
        touch(strcasecmp(*sorted.place(name), name));
      });
  free_dns_hostlist_cache();
}

}  // namespace

void measure_hosts() {
  test_names("own-name test, 100 hosts", 2.7, 100);
  test_names("own-name test, 100,000 hosts", 2, 100'000);

  const std::vector<std::string> names = host_names(10'000);
  compare(
      "adding 10,000 hosts", 1.5,
      [&] {
        DnsCacheHold hold;
        hostlist_cache cache = {.limits = dns_hostlist_cache.limits};
        for (const std::string& name : names) add_host(&cache, name);
        hostlist_cache_free(&cache);
      },
      [&] {
        SortedNames sorted;
        std::vector<host_entry*> entries;
        for (const std::string& name : names) {
          sorted.add(name.c_str());
          entries.push_back(static_cast<host_entry*>(calloc(1, sizeof(host_entry))));
        }
        for (host_entry* entry : entries) free(entry);
      });
}

// The caches of hosts and the own addresses, each path beside its floor. Run in the test machine:
// this host's own name is resolved once.
#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>

#include "bench/paths.h"
#include "liblocal/hosts/dns_cache.h"
#include "liblocal/hosts/get_myad.h"
#include "liblocal/hosts/is_mynam.h"

namespace {

constexpr int kFew = 100;
constexpr int kMany = 100'000;
constexpr int kAdded = 10'000;

void require(bool held) {
  if (held) return;
  fprintf(stderr, "hosts_bench: a path came out wrong\n");
  exit(1);
}

// `count` names, in the order that they are added and asked for.
std::vector<std::string> host_names(int count) {
  std::vector<std::string> names;
  for (int i = 0; i < count; ++i) names.push_back("client-" + std::to_string(i) + ".example.net");
  std::shuffle(names.begin(), names.end(), std::mt19937());
  return names;
}

// What a cache may do with least: a sorted array of names.
struct SortedNames {
  std::vector<char*> table;

  ~SortedNames() {
    for (char* name : table) free(name);
  }
  std::vector<char*>::iterator place(const char* name) {
    return std::lower_bound(table.begin(), table.end(), name,
                            [](const char* a, const char* b) { return strcasecmp(a, b) < 0; });
  }
  void add(const char* name) { table.insert(place(name), strdup(name)); }
};

// --- Testing names -------------------------------------------------------------

template <int kCount>
void test_names(benchmark::State& state) {
  const std::vector<std::string> names = host_names(kCount);
  require(is_myname("testhost") == 1);
  for (const std::string& name : names) {
    DnsCacheHold hold;
    require(hostlist_cache_add_host(&dns_hostlist_cache, nullptr, name.c_str(), nullptr, HOST_LIVE,
                                    kHostNeverExpires) != nullptr);
  }
  size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(is_myname(names[next].c_str()));
    next = next + 1 < names.size() ? next + 1 : 0;
  }
  free_dns_hostlist_cache();
}

template <int kCount>
void test_names_floor(benchmark::State& state) {
  const std::vector<std::string> names = host_names(kCount);
  SortedNames sorted;
  for (const std::string& name : names) sorted.add(name.c_str());
  size_t next = 0;
  for (auto _ : state) {
    const char* name = names[next].c_str();
    int found = strcasecmp(*sorted.place(name), name);
    benchmark::DoNotOptimize(found);
    next = next + 1 < names.size() ? next + 1 : 0;
  }
}

// --- Adding hosts --------------------------------------------------------------

void add_hosts(benchmark::State& state) {
  const std::vector<std::string> names = host_names(kAdded);
  for (auto _ : state) {
    DnsCacheHold hold;
    hostlist_cache cache = {.limits = dns_hostlist_cache.limits};
    for (const std::string& name : names) {
      require(hostlist_cache_add_host(&cache, nullptr, name.c_str(), nullptr, HOST_LIVE,
                                      kHostNeverExpires) != nullptr);
    }
    require(cache.count == kAdded);
    hostlist_cache_free(&cache);
  }
}

void add_hosts_floor(benchmark::State& state) {
  const std::vector<std::string> names = host_names(kAdded);
  for (auto _ : state) {
    SortedNames sorted;
    std::vector<host_entry*> entries;
    for (const std::string& name : names) {
      sorted.add(name.c_str());
      entries.push_back(static_cast<host_entry*>(calloc(1, sizeof(host_entry))));
    }
    require(sorted.table.size() == kAdded);
    for (host_entry* entry : entries) free(entry);
  }
}

// --- Testing an address --------------------------------------------------------

const in_addr loopback = {htonl(INADDR_LOOPBACK)};
in_addr_t known = htonl(INADDR_LOOPBACK);

void test_address(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(is_myaddr(AF_INET, &loopback, sizeof loopback));
}

void test_address_floor(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(known);
    benchmark::DoNotOptimize(loopback.s_addr == known);
  }
}

constexpr Path kPaths[] = {
    {"own-name test, 100 hosts", "few", test_names<kFew>, test_names_floor<kFew>, 2.0},
    {"own-name test, 100,000 hosts", "many", test_names<kMany>, test_names_floor<kMany>, 1.4},
    {"adding 10,000 hosts", "add", add_hosts, add_hosts_floor, 1.5},
    {"own-address test, the same again", "address", test_address, test_address_floor, 3.0},
};

}  // namespace

int main(int argc, char** argv) { return measure(argc, argv, kPaths); }

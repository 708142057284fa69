// What must hold of a cache of hosts between any two operations.
#pragma once

#include <gtest/gtest.h>
#include <strings.h>

#include <string>

#include "liblocal/hosts/hostlist_cache.h"

/// Empty when `cache` is sound, else what is wrong with it.
inline std::string hostlist_fault(const hostlist_cache& cache) {
  int32_t stale = 0, chained = 0;
  bool local_host_seen = cache.local_host == nullptr;
  for (int32_t i = 0; i < cache.count; ++i) {
    const host_entry* entry = cache.table[i];
    if (i > 0 && strcasecmp(cache.table[i - 1]->name, entry->name) >= 0) return "not sorted";
    const host_entry* host = entry->state == HOST_STALE ? nullptr : entry->primary;
    if (host == nullptr) ++stale;
    if (host == nullptr && (entry->primary != entry || entry->next)) return "a stale chain";
    if (hostlist_cache_host(&cache, entry->name) != host) return "not found";
    if (host != entry) continue;
    local_host_seen |= entry == cache.local_host;
    for (const host_entry* link = entry; link != nullptr; link = link->next) {
      if (++chained > cache.count) return "a chain without end";
      if (link->primary != entry || link->state == HOST_STALE) return "a chain with another's";
    }
  }
  if (chained + stale != cache.count || stale != cache.stale_count) return "entries miscounted";
  return local_host_seen ? "" : "a local host that is no host of the table";
}

/// The names of a host, in the order of its chain, with a blank between them.
inline std::string names_of(const host_entry* host) {
  std::string names = host != nullptr ? host->name : "";
  while (host != nullptr && (host = host->next) != nullptr) names += std::string(" ") + host->name;
  return names;
}

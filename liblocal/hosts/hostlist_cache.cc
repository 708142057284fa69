#include "liblocal/hosts/hostlist_cache.h"

#include <strings.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/svc_time.h"
#include "liblocal/messages/errinfo.h"
#include "liblocal/startup/vxenv.h"

namespace {

constexpr int32_t kLowRoom = 2;  // free slots at which an insertion makes room

std::atomic<vx_mutex*> cache_lock;

vx_error_record* no_memory() { return err_set(1, ENOMEM); }

int32_t free_slots(const hostlist_cache* cache) { return cache->capacity - cache->count; }

void give_back(hostlist_cache* cache, host_entry* entry) {
  free(entry->name);
  *entry = {};
  entry->next = cache->free_list;
  cache->free_list = entry;
}

host_entry* take_entry(hostlist_cache* cache) {
  host_entry* entry = cache->free_list;
  if (entry == nullptr) return c_new<host_entry>();
  cache->free_list = entry->next;
  entry->next = nullptr;
  return entry;
}

// Makes room without evicting `host`. Returns whether there is a free slot.
bool extend_around(hostlist_cache* cache, host_entry* host) {
  const uint32_t state = host->state;
  host->state = HOST_PINNED;
  (void)hostlist_cache_extend(cache);  // without memory the slots that are left still serve
  host->state = state;
  return free_slots(cache) > 0;
}

// Where an entry belongs in a table that does not have its name.
int32_t position_of(const hostlist_cache* cache, const host_entry* entry, int32_t hint) {
  if (cache->count == 0) return 0;
  return strcasecmp(entry->name, cache->table[hint]->name) > 0 ? hint + 1 : hint;
}

// Gives an entry of the table to a host.
void reuse(hostlist_cache* cache, host_entry* entry, host_entry* primary, uint32_t state,
           int64_t expiry) {
  if (entry->state == HOST_STALE) --cache->stale_count;
  entry->primary = primary;
  entry->state = state;
  entry->expiry = expiry;
}

int32_t maximum_of(const hostlist_limits* limits) {
  const char* wanted = vxgetenv(limits->variable);
  const int32_t maximum = wanted != nullptr ? atoi(wanted) : limits->least_maximum;
  // The last step before the maximum may pass it.
  return std::clamp(maximum, limits->least_maximum, INT32_MAX - limits->step);
}

// Adds a step of slots.
bool grow(hostlist_cache* cache) {
  const int32_t step = cache->limits->step;
  const size_t capacity = static_cast<size_t>(cache->capacity) + static_cast<size_t>(step);
  void* larger = realloc(cache->table, capacity * sizeof(void*));
  if (larger == nullptr) {
    no_memory();
    return false;
  }
  cache->table = static_cast<host_entry**>(larger);
  cache->capacity += step;
  return true;
}

// Drops hosts in the order of the table until enough entries are stale for the reserve: those
// that have expired by `now`, or with `any` every host that may be evicted.
void evict(hostlist_cache* cache, int64_t now, bool any) {
  int32_t wanted = cache->limits->reserve - free_slots(cache);
  for (int32_t i = 0; i < cache->count && cache->stale_count < wanted; ++i) {
    host_entry* host = cache->table[i]->primary;
    if (host->state == HOST_STALE || host->state == HOST_PINNED) continue;
    if (host == cache->local_host || (!any && host->expiry > now)) continue;
    hostlist_cache_drop_host(cache, host);
  }
  hostlist_cache_purge(cache, HOST_STALE);
}

host_entry* last_of(host_entry* entry) {
  while (entry->next != nullptr) entry = entry->next;
  return entry;
}

bool is_live(const host_entry* entry) {
  const uint32_t state = entry->primary->state;
  return state == HOST_LIVE || state == HOST_PINNED;
}

}  // namespace

vx_mutex* hostlist_cache_lock() { return vx_mutex_required(&cache_lock); }

char* hostlist_copy_name(const char* name) {
  char* copy = strdup(name);
  if (copy == nullptr) err_print(no_memory());
  return copy;
}

host_place hostlist_cache_find(const hostlist_cache* cache, const char* name) {
  int32_t low = 0;
  int32_t high = cache->count - 1;
  int32_t middle = low;
  while (low <= high) {
    middle = low + (high - low) / 2;
    host_entry* entry = cache->table[middle];
    int order = strcasecmp(name, entry->name);
    if (order == 0) return {entry, middle};
    if (order < 0) {
      high = middle - 1;
    } else {
      low = middle + 1;
    }
  }
  return {nullptr, middle};
}

host_entry* hostlist_cache_host(const hostlist_cache* cache, const char* name) {
  const host_entry* entry = hostlist_cache_find(cache, name).entry;
  return entry == nullptr || entry->state == HOST_STALE ? nullptr : entry->primary;
}

host_entry* hostlist_cach_new_host(hostlist_cache* cache, const char* name, host_entry* primary,
                                   uint32_t state, int64_t expiry) {
  host_entry* entry = take_entry(cache);
  char* copy = entry != nullptr ? strdup(name) : nullptr;
  if (copy == nullptr) {
    if (entry != nullptr) give_back(cache, entry);
    no_memory();
    return nullptr;
  }
  *entry = {.name = copy,
            .primary = primary != nullptr ? primary : entry,
            .next = nullptr,
            .state = state,
            .expiry = expiry};
  return entry;
}

bool hostlist_cache_insert(hostlist_cache* cache, host_entry* entry, int32_t hint) {
  if (free_slots(cache) == 0) {
    if (!extend_around(cache, entry->primary)) {
      give_back(cache, entry);
      no_memory();
      return false;
    }
    hint = hostlist_cache_find(cache, entry->name).hint;
  }
  host_entry** slot = cache->table + position_of(cache, entry, hint);
  std::copy_backward(slot, cache->table + cache->count, cache->table + cache->count + 1);
  *slot = entry;
  ++cache->count;
  // Without memory to grow, the slots that are left still serve.
  if (free_slots(cache) <= kLowRoom) (void)extend_around(cache, entry->primary);
  return true;
}

void hostlist_cache_drop_host(hostlist_cache* cache, host_entry* entry) {
  host_entry* host = entry->primary;
  if (host == cache->local_host) cache->local_host = nullptr;
  for (host_entry* next = nullptr; host != nullptr; host = next) {
    next = host->next;
    host->next = nullptr;
    host->primary = host;
    if (host->state != HOST_STALE) ++cache->stale_count;
    host->state = HOST_STALE;
  }
}

void hostlist_cache_purge(hostlist_cache* cache, uint32_t state) {
  if (state == HOST_STALE && cache->stale_count == 0) return;
  host_entry* removed = nullptr;  // kept whole meanwhile: aliases look at their primary's state
  int32_t kept = 0;
  for (int32_t i = 0; i < cache->count; ++i) {
    host_entry* entry = cache->table[i];
    if (entry->primary->state != state) {
      cache->table[kept++] = entry;
      continue;
    }
    entry->next = removed;
    removed = entry;
  }
  cache->count = kept;
  if (state == HOST_STALE) cache->stale_count = 0;
  while (host_entry* entry = removed) {
    removed = entry->next;
    if (entry == cache->local_host) cache->local_host = nullptr;
    give_back(cache, entry);
  }
}

bool hostlist_cache_extend(hostlist_cache* cache) {
  hostlist_cache_purge(cache, HOST_STALE);
  if (free_slots(cache) >= cache->limits->reserve) return true;
  if (cache->maximum_capacity == 0) cache->maximum_capacity = maximum_of(cache->limits);
  if (cache->capacity < cache->maximum_capacity) return grow(cache);
  hostlist_cache_trim(cache);
  return true;
}

void hostlist_cache_trim(hostlist_cache* cache) {
  const int64_t now = svc_time();
  for (bool any : {false, true}) evict(cache, now, any);
}

host_entry* hostlist_cache_add_alias(hostlist_cache* cache, host_entry* primary, const char* name) {
  auto [entry, hint] = hostlist_cache_find(cache, name);
  if (entry == nullptr) {
    entry = hostlist_cach_new_host(cache, name, primary, primary->state, primary->expiry);
    return entry != nullptr && hostlist_cache_insert(cache, entry, hint) ? entry : nullptr;
  }
  if (entry->primary != primary) {
    if (entry->primary == cache->local_host) return entry;
    hostlist_cache_drop_host(cache, entry);
  }
  reuse(cache, entry, primary, primary->state, primary->expiry);
  return entry;
}

vx_error_record* hostlist_cache_add_names(hostlist_cache* cache, host_entry* primary,
                                          const char* name, const char* const* list) {
  const char* const none = nullptr;
  if (list == nullptr) list = &none;
  host_entry* tail = last_of(primary);
  for (const char* each = name != nullptr ? name : *list++; each != nullptr; each = *list++) {
    const host_entry* known = hostlist_cache_find(cache, each).entry;
    if (known != nullptr && known->primary == primary) continue;
    host_entry* entry = hostlist_cache_add_alias(cache, primary, each);
    if (entry == nullptr) return no_memory();
    if (entry->primary != primary) continue;  // the local host's
    tail->next = entry;
    tail = entry;
  }
  return nullptr;
}

host_entry* hostlist_cache_add_host(hostlist_cache* cache, const char* key, const char* name,
                                    const char* const* aliases, uint32_t state, int64_t expiry) {
  host_place place = {};
  if (key != nullptr) place = hostlist_cache_find(cache, key);
  if (place.entry == nullptr || !is_live(place.entry)) place = hostlist_cache_find(cache, name);
  host_entry* host = place.entry;
  if (host == nullptr) {
    key = nullptr;
    host = hostlist_cach_new_host(cache, name, nullptr, state, expiry);
    if (host != nullptr && !hostlist_cache_insert(cache, host, place.hint)) host = nullptr;
  } else if (is_live(host)) {
    host = host->primary;
    host->expiry = expiry;
  } else {
    hostlist_cache_drop_host(cache, host);
    reuse(cache, host, host, state, expiry);
  }
  vx_error_record* error =
      host != nullptr ? hostlist_cache_add_names(cache, host, key, aliases) : no_memory();
  if (error == nullptr) return host;
  if (host != nullptr) hostlist_cache_drop_host(cache, host);
  err_print(error);
  return nullptr;
}

void hostlist_cache_free(hostlist_cache* cache) {
  for (int32_t i = 0; i < cache->count; ++i) {
    free(cache->table[i]->name);
    free(cache->table[i]);
  }
  while (host_entry* entry = cache->free_list) {
    cache->free_list = entry->next;
    free(entry);
  }
  free(cache->table);
  *cache = {.limits = cache->limits};
}

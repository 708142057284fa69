#include "liblocal/hosts/hostlist_cache.h"

#include <signal.h>
#include <strings.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/svc_time.h"
#include "liblocal/messages/errinfo.h"
#include "liblocal/startup/vxenv.h"

namespace {

constexpr size_t kSlotSize = sizeof(void*);  // of the table, which holds pointers
constexpr int32_t kLowRoom = 2;              // free slots at which an insertion makes room

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

// Makes room without evicting `host`, which is live then, unless its name is unknown.
void extend_around(hostlist_cache* cache, host_entry* host) {
  const uint32_t state = host->state == HOST_UNRESOLVED ? HOST_UNRESOLVED : HOST_LIVE;
  host->state = HOST_PINNED;
  hostlist_cache_extend(cache);
  host->state = state;
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
  int32_t maximum = wanted != nullptr ? atoi(wanted) : 0;
  // The last step before the maximum may pass it.
  return std::clamp(maximum, limits->least_maximum, INT32_MAX - limits->step);
}

uint32_t hash_of(const char* name, size_t length) {
  constexpr uint64_t kLowerCase = 0x2020202020202020;  // of ASCII letters
  constexpr uint64_t kSpread = 0x9E3779B97F4A7C15;
  uint64_t hash = 0;
  auto mix = [&hash](uint64_t word) {
    hash = (hash ^ (word | kLowerCase)) * kSpread;
    hash ^= hash >> 32;
  };
  uint64_t word = 0;
  for (; length >= sizeof word; length -= sizeof word, name += sizeof word) {
    memcpy(&word, name, sizeof word);
    mix(word);
  }
  word = 0;
  memcpy(&word, name, length);
  mix(word);
  return static_cast<uint32_t>(hash);
}

// At most half full.
size_t index_size(const hostlist_cache* cache) {
  return std::bit_ceil(2 * static_cast<size_t>(cache->capacity));
}

// An entry stands in the slot of its hash or the next free one behind it.
void add_to_index(hostlist_cache* cache, host_entry* entry) {
  if (cache->index == nullptr) return;
  const size_t mask = index_size(cache) - 1;
  size_t at = entry->hash & mask;
  while (cache->index[at] != nullptr) at = (at + 1) & mask;
  cache->index[at] = entry;
}

// Null also for a name that only the locale knows to be the same.
const host_entry* find_in_index(const hostlist_cache* cache, const char* name) {
  if (cache->index == nullptr) return nullptr;
  const size_t mask = index_size(cache) - 1;
  const uint32_t hash = hash_of(name, strlen(name));
  for (size_t at = hash & mask; cache->index[at] != nullptr; at = (at + 1) & mask) {
    const host_entry* entry = cache->index[at];
    if (entry->hash == hash && strcasecmp(entry->name, name) == 0) return entry;
  }
  return nullptr;
}

// Makes the index anew. Without memory for it there is none, and names are searched for.
void make_index(hostlist_cache* cache) {
  free(cache->index);
  cache->index = static_cast<host_entry**>(calloc(index_size(cache), kSlotSize));
  for (int32_t i = 0; i < cache->count; ++i) add_to_index(cache, cache->table[i]);
}

// Slots that were never used stay untouched, and cost no memory.
bool grow(hostlist_cache* cache) {
  const int32_t capacity = cache->capacity + cache->limits->step;
  void* larger = realloc(cache->table, static_cast<size_t>(capacity) * kSlotSize);
  if (larger == nullptr) {
    no_memory();
    return false;
  }
  cache->table = static_cast<host_entry**>(larger);
  const size_t indexed = index_size(cache);
  const bool is_first = cache->capacity == 0;
  cache->capacity = capacity;
  if (!is_first && (cache->index == nullptr || index_size(cache) != indexed)) make_index(cache);
  return true;
}

// Drops hosts in the order of the table until enough entries are stale for the reserve:
// those that have expired by `now`, or with `any` all that may go.
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
  uint32_t state = entry->primary->state;
  return state == HOST_LIVE || state == HOST_PINNED;
}

}  // namespace

vx_mutex* hostlist_cache_lock() {
  vx_mutex* lock = vx_mutex_made_once(&cache_lock);
  if (lock == nullptr) raise(SIGTERM);
  return lock;
}

host_place hostlist_cache_find(const hostlist_cache* cache, const char* name) {
  int32_t low = 0;
  int32_t high = cache->count - 1;
  int32_t middle = 0;
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
  const host_entry* entry = find_in_index(cache, name);
  if (entry == nullptr) entry = hostlist_cache_find(cache, name).entry;
  return entry == nullptr || entry->state == HOST_STALE ? nullptr : entry->primary;
}

host_entry* hostlist_cach_new_host(hostlist_cache* cache, const char* name, host_entry* primary,
                                   uint32_t state, int64_t expiry) {
  host_entry* entry = take_entry(cache);
  const size_t length = strlen(name);
  auto* copy = entry != nullptr ? static_cast<char*>(malloc(length + 1)) : nullptr;
  if (copy == nullptr) {
    if (entry != nullptr) give_back(cache, entry);
    no_memory();
    return nullptr;
  }
  memcpy(copy, name, length + 1);
  if (primary == nullptr) primary = entry;
  *entry = {copy, primary, nullptr, state, hash_of(copy, length), expiry};
  return entry;
}

bool hostlist_cache_insert(hostlist_cache* cache, host_entry* entry, int32_t hint) {
  if (free_slots(cache) == 0) {
    extend_around(cache, entry->primary);
    if (free_slots(cache) == 0) {
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
  add_to_index(cache, entry);
  // Without memory to grow, the slots that are left still serve.
  if (free_slots(cache) <= kLowRoom) extend_around(cache, entry->primary);
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
  host_entry* removed = nullptr;  // whole until the end, as aliases look at their primary
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
  if (removed != nullptr && cache->index != nullptr) make_index(cache);
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
  hostlist_cache_purge(cache, HOST_STALE);
  const int64_t now = svc_time();
  for (bool any : {false, true}) {
    if (free_slots(cache) >= cache->limits->reserve) return;
    evict(cache, now, any);
  }
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
  free(cache->index);
  *cache = {.limits = cache->limits};
}

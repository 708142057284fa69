// A cache of hosts: every name, alias and dotted address of a host in one chain, and all
// of them in one table that is searched by name.
//
// The resolver's hosts (dns_cache.h) and the clients (client_list.h) each have a cache of
// their own. The table is an array of pointers, sorted by name; letter case never counts.
// Beside a table of more than one step stands an index, for names that are there.
// A host is its primary entry, the first of its chain: that entry's state and expiry
// count for the whole chain. Between two operations
//
//   - no two entries of the table have the same name;
//   - an entry that is not stale is in the chain of its primary, which is its own primary
//     and first of the chain;
//   - a stale entry (of a host that was dropped) is its own primary and has no next; it
//     stays in the table until the next purge, or until its name is added again;
//   - the local host, when there is one, is a host of the table; it is never evicted.
//
// An entry's memory is freed with the cache only, so a pointer to a host that was dropped
// may be stale or be another host, but may still be read.
//
// Thread safety: one lock, hostlist_cache_lock, guards both caches. Callers hold it over
// every operation here and for as long as they use an entry.
//
// Failure: without memory an operation returns null or false, with the thread's current
// error record (errinfo.h) set to ENOMEM; the cache stays consistent.
#pragma once

#include <cstdint>

#include "liblocal/base/liblvarp.h"
#include "liblocal/base/vx_mutex.h"

constexpr int64_t kHostNeverExpires = 2147483647;
constexpr int32_t kHostlistStep = 1024;    // slots of a new table, and added at a time
constexpr int32_t kHostlistReserve = 100;  // free slots that making room aims at
constexpr size_t kLocalHostNameSize = 256;

/// Whether an entry may be used.
enum HostState : uint32_t {
  HOST_LIVE = 0,
  HOST_PINNED = 1,      // live, and not to be evicted for the moment
  HOST_STALE = 2,       // dropped
  HOST_UNRESOLVED = 3,  // a name that the resolver does not know
};

/// One name of a host.
struct host_entry {
  char* name;           // owned
  host_entry* primary;  // of the entry's host; its own for the first one
  host_entry* next;     // in the chain, or in the free list
  uint32_t state;
  uint32_t hash;   // of the name, whatever its case
  int64_t expiry;  // service time after which the host is to be resolved again
};

/// How large a cache may grow.
struct hostlist_limits {
  const char* variable;   // environment variable with the maximum capacity
  int32_t least_maximum;  // the maximum without it, and the least that it can ask for
  int32_t step = kHostlistStep;
  int32_t reserve = kHostlistReserve;
};

/// One cache. Its lock is hostlist_cache_lock.
struct hostlist_cache {
  const hostlist_limits* limits;     // not null; stays when the cache is freed
  host_entry** table = nullptr;      // `capacity` slots, the first `count` in use
  host_entry** index = nullptr;      // a hash table of all entries; null while they are few
  host_entry* local_host = nullptr;  // this host; null until resolved, and for the clients
  host_entry* free_list = nullptr;   // entries to be used again, linked by `next`
  int32_t count = 0;
  int32_t stale_count = 0;  // entries of the table that are HOST_STALE
  int32_t capacity = 0;
  int32_t maximum_capacity = 0;                   // 0 until first needed
  int32_t update_style = 0;                       // of the clients
  char local_host_name[kLocalHostNameSize] = "";  // unset while it begins with NUL or a blank
};

/// Where a name is, or would be, in the table.
struct host_place {
  host_entry* entry;  // null when the name is not there
  int32_t hint;       // the last slot that the search looked at, for hostlist_cache_insert
};

/// The lock of both caches, made on first use. When that fails the process is sent
/// SIGTERM, and the result is null.
[[nodiscard]] vx_mutex* hostlist_cache_lock();

/// Finds `name`, stale entries included.
[[nodiscard]] host_place hostlist_cache_find(const hostlist_cache* cache, const char* name);

/// The host of `name`: null when the name is not there or stale.
[[nodiscard]] host_entry* hostlist_cache_host(const hostlist_cache* cache, const char* name);

/// A new entry, not yet in the table, with a copy of `name`. A null `primary` makes it a
/// primary.
[[nodiscard]] host_entry* hostlist_cach_new_host(hostlist_cache* cache, const char* name,
                                                 host_entry* primary, uint32_t state,
                                                 int64_t expiry);

/// Puts `entry` into the table. `hint` is where the search for its name ended, without
/// another operation since. Makes room when little is left; the entry's own host is not
/// evicted for it, and unless its name is unknown it is HOST_LIVE then. When the table is full and
/// no room can be made the entry is given back to the free list. Returns whether it is in the
/// table.
[[nodiscard]] bool hostlist_cache_insert(hostlist_cache* cache, host_entry* entry, int32_t hint);

/// Makes the whole host of `entry` stale, ending its chain. When it was the local host
/// there is none any more.
void hostlist_cache_drop_host(hostlist_cache* cache, host_entry* entry);

/// Takes all entries of the hosts in `state` (not HOST_PINNED) out of the table and puts
/// them on the free list.
void hostlist_cache_purge(hostlist_cache* cache, uint32_t state);

/// Sees to it that there are free slots: purges stale entries; when fewer than the
/// reserve are free then, grows the table by a step or, at the maximum capacity, trims.
/// False when there was no memory to grow.
bool hostlist_cache_extend(hostlist_cache* cache);

/// Evicts hosts, in the order of the table, until the reserve is free: those that have
/// expired, then any. The local host and pinned ones stay.
void hostlist_cache_trim(hostlist_cache* cache);

/// Makes `name` an entry of the host `primary`, with that one's state and expiry, for the
/// caller to link into its chain unless it is there already. Another host that the name belonged to
/// is dropped, but the local host keeps its names: what the resolver says of others never changes
/// who this host is. Returns the entry of `name`, or null.
[[nodiscard]] host_entry* hostlist_cache_add_alias(hostlist_cache* cache, host_entry* primary,
                                                   const char* name);

/// Adds `name` (if not null) and the names of `list` (ended by a null; or null) to the end
/// of the chain of `primary`; names that are there already stay where they are, and so do
/// names of the local host. Returns null when all went well, else the error record.
[[nodiscard]] vx_error_record* hostlist_cache_add_names(hostlist_cache* cache, host_entry* primary,
                                                        const char* name, const char* const* list);

/// Adds a host. The live host that `key` (a dotted address, or null) belongs to, or else
/// the live host of `name`, is taken and gets the new expiry. Otherwise `name` becomes a
/// new host of the given state. `key`, unless `name` was not in the table before, and
/// `aliases` (ended by a null; or null) are added to its chain. Returns the host; null,
/// after the error was printed and the host dropped, without memory.
[[nodiscard]] host_entry* hostlist_cache_add_host(hostlist_cache* cache, const char* key,
                                                  const char* name, const char* const* aliases,
                                                  uint32_t state, int64_t expiry);

/// Frees all that the cache holds and resets it to its start.
void hostlist_cache_free(hostlist_cache* cache);

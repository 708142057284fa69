// A cache of hosts: every name, alias and dotted address of a host is an entry of one chain,
// and all entries are in one table that is searched by name.
//
// The resolver's hosts (dns_cache.h) and the clients (client_list.h) each have a cache. The
// table is an array of pointers, sorted by name without regard to letter case. The first
// entry of a chain is the host's primary entry: its state and expiry are those of the host.
// Between two operations
//
//   - no two entries of the table have the same name;
//   - an entry that is not stale is in the chain of its primary entry;
//   - a stale entry (of a dropped host) is its own primary and has no next. It stays in the
//     table until the next purge, or until its name is added again;
//   - the local host, when there is one, is a host of the table. It is never evicted.
//
// Entries are freed with their cache only, so a pointer to a dropped host may still be read.
// What it points to may be stale or another host by then.
//
// Thread safety: one lock, hostlist_cache_lock, guards both caches and is held while the
// resolver is asked. Callers hold it over every operation here and for as long as they use an
// entry. The clean-up at exit takes it, too: a silent name server delays `exit`, and a child
// that was forked while a thread held the lock must end with `_exit`.
//
// Failure: without memory an operation returns null or false, with the thread's current error
// record (errinfo.h) set to ENOMEM. The cache stays consistent.
#pragma once

#include <cstdint>

#include "liblocal/base/liblvarp.h"
#include "liblocal/base/vx_mutex.h"

/// The expiry of a host that never expires.
constexpr int64_t kHostNeverExpires = 2147483647;
constexpr int32_t kHostlistStep = 1024;     //!< slots of a new table, and added at a time
constexpr int32_t kHostlistReserve = 100;   //!< free slots that making room aims at
constexpr size_t kLocalHostNameSize = 256;  //!< bytes of the local host's name

/// Whether an entry may be used.
enum HostState : uint32_t {
  HOST_LIVE = 0,
  HOST_PINNED = 1,      //!< live, and not to be evicted for the moment
  HOST_STALE = 2,       //!< dropped
  HOST_UNRESOLVED = 3,  //!< a name that the resolver does not know
};

/// One name of a host.
struct host_entry {
  char* name;           //!< owned
  host_entry* primary;  //!< of the entry's host; its own for the first one
  host_entry* next;     //!< in the chain, or in the free list
  uint32_t state;
  int64_t expiry;  //!< service time after which the host is to be resolved again
};

/// How large a cache may grow.
struct hostlist_limits {
  const char* variable;   //!< environment variable with the maximum capacity
  int32_t least_maximum;  //!< the maximum without it, and the least that it can ask for
  int32_t step = kHostlistStep;
  int32_t reserve = kHostlistReserve;
};

/// One cache. Its lock is hostlist_cache_lock.
struct hostlist_cache {
  const hostlist_limits* limits;     //!< not null; stays when the cache is freed
  host_entry** table = nullptr;      //!< `capacity` slots, the first `count` in use
  host_entry* local_host = nullptr;  //!< this host; null until resolved, and for the clients
  host_entry* free_list = nullptr;   //!< entries to be used again, linked by `next`
  int32_t count = 0;
  int32_t stale_count = 0;  //!< entries of the table that are HOST_STALE
  int32_t capacity = 0;
  int32_t maximum_capacity = 0;                   //!< 0 until first needed
  int32_t update_style = 0;                       //!< of the clients
  char local_host_name[kLocalHostNameSize] = "";  //!< unset while it begins with NUL or a blank
};

/// Where a name is, or would be, in the table.
struct host_place {
  host_entry* entry;  //!< null when the name is not there
  int32_t hint;       //!< the last slot that the search looked at, for hostlist_cache_insert
};

/// The lock of both caches, made on first use. When it cannot be made, the process is sent
/// SIGTERM and the result is null.
[[nodiscard]] vx_mutex* hostlist_cache_lock();

/// A copy of `name`, to be freed by the caller; null, after a message, without memory. Needs
/// no lock.
[[nodiscard]] char* hostlist_copy_name(const char* name);

/// Finds `name`, stale entries included.
[[nodiscard]] host_place hostlist_cache_find(const hostlist_cache* cache, const char* name);

/// The host of `name`: null when the name is not there or stale.
[[nodiscard]] host_entry* hostlist_cache_host(const hostlist_cache* cache, const char* name);

/// A new entry, not yet in the table, with a copy of `name`. A null `primary` makes it a
/// primary entry.
[[nodiscard]] host_entry* hostlist_cach_new_host(hostlist_cache* cache, const char* name,
                                                 host_entry* primary, uint32_t state,
                                                 int64_t expiry);

/// Puts `entry` into the table. `hint` is that of hostlist_cache_find for its name, with no
/// other operation since. When few slots are left it makes room, without evicting the entry's
/// own host. When the table is full and no room can be made, it puts the entry on the free
/// list and returns false.
[[nodiscard]] bool hostlist_cache_insert(hostlist_cache* cache, host_entry* entry, int32_t hint);

/// Makes all entries of the host of `entry` stale and ends their chain. When it was the local
/// host, the cache has no local host afterwards.
void hostlist_cache_drop_host(hostlist_cache* cache, host_entry* entry);

/// Moves all entries of the hosts in `state` (not HOST_PINNED) from the table to the free list.
void hostlist_cache_purge(hostlist_cache* cache, uint32_t state);

/// Purges stale entries. When fewer slots than the reserve are free then, grows the table by a
/// step or, at the maximum capacity, trims it. Returns false when there was no memory to grow.
[[nodiscard]] bool hostlist_cache_extend(hostlist_cache* cache);

/// Evicts hosts, in the order of the table, until the reserve is free: expired hosts first,
/// then any. The local host and pinned hosts are never evicted.
void hostlist_cache_trim(hostlist_cache* cache);

/// Makes `name` an entry of the host `primary`, with the state and expiry of `primary`. The
/// caller links a new entry into the chain. Another host that has the name is dropped; only
/// the local host keeps its names, so that no answer of the resolver about another host
/// changes who this host is. Returns the entry of `name`, or null.
[[nodiscard]] host_entry* hostlist_cache_add_alias(hostlist_cache* cache, host_entry* primary,
                                                   const char* name);

/// Adds `name` (if not null) and the names of `list` (ended by a null; or null) to the end of
/// the chain of `primary`. Names that are in the chain stay where they are, and so do names of
/// the local host. Returns null on success, else the error record.
[[nodiscard]] vx_error_record* hostlist_cache_add_names(hostlist_cache* cache, host_entry* primary,
                                                        const char* name, const char* const* list);

/// Adds a host. A live host that has `key` (a dotted address, or null), or else one that has
/// `name`, gets the new expiry. When there is none, `name` becomes the primary entry of a new
/// host in `state`. Then `aliases` (ended by a null; or null) are added to the chain; `key` is
/// added, too, when the table had `name` or `key` before. Returns the host; null, after a
/// message and with the host dropped, without memory.
[[nodiscard]] host_entry* hostlist_cache_add_host(hostlist_cache* cache, const char* key,
                                                  const char* name, const char* const* aliases,
                                                  uint32_t state, int64_t expiry);

/// Frees all that the cache holds and resets it to its start.
void hostlist_cache_free(hostlist_cache* cache);

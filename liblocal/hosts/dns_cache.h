// The hosts that the resolver was asked for: which names and addresses belong to one host, and
// which host is this one.
//
// A resolved host is good for 30 minutes of service time (svc_time.h), a name that does not
// resolve for 5. A known host whose name does not resolve any more is kept for these 5 minutes,
// so that a resolver that is down for a while changes nothing. As long as this host itself is
// not known, every look-up asks for it first.
//
// The environment variable "MAX_DNS_CACHE_SIZE" raises the cache's maximum capacity above
// 131072 names.
//
// Thread safety: callers have a DnsCacheHold over every operation but free_dns_hostlist_cache,
// which locks by itself, and for as long as they use a host. The lock is held while the
// resolver is asked; hostlist_cache.h says what follows for `exit` and `fork`.
#pragma once

#include <cstdint>

#include "liblocal/base/vx_mutex.h"
#include "liblocal/hosts/hostlist_cache.h"

constexpr int64_t kResolvedSeconds = 1800;   //!< how long a resolved host is valid
constexpr int64_t kUnresolvedSeconds = 300;  //!< how long an unknown name is not asked for

/// The cache, guarded by hostlist_cache_lock.
extern hostlist_cache dns_hostlist_cache;

/// Locks the caches for a scope. It first makes sure that the DNS cache has this host's name,
/// and waits for the resolver without the lock. Within another hold it locks nothing.
class DnsCacheHold {
 public:
  DnsCacheHold();

 private:
  VxMutexLock lock_;
};

/// True for the names of this host that need no look-up: null, empty and "localhost".
[[nodiscard]] bool dns_cache_is_local_word(const char* name);

/// Asks the resolver for `name` and for the names of its addresses, and puts all into `cache`;
/// `now` is the service time. A null or empty name means this host, which gets the addresses of
/// all interfaces and their names, too. Returns the host, in state HOST_UNRESOLVED when the
/// name does not resolve; null, after a message, without memory.
///
/// REQUIRES: `name` is not in an answer of a vx_ts_ look-up, which would overwrite it.
host_entry* dns_cache_resolve(hostlist_cache* cache, const char* name, int64_t now);

/// The host of `name`, which is resolved when it is not known at the service time `now`; this
/// host is resolved before it when it is not known. Null when `name` does not resolve.
///
/// REQUIRES: as dns_cache_resolve.
[[nodiscard]] host_entry* dns_cache_lookup(const char* name, int64_t now);

/// Forgets all hosts and frees their memory. The release of the process block calls it.
void free_dns_hostlist_cache();

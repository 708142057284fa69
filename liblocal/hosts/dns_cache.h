// The hosts that the resolver was asked for: which names and addresses belong to one
// host, and which host is this one.
//
// A resolved host is good for 30 minutes of service time (svc_time.h), a name that does
// not resolve for 5. A known host whose name does not resolve any more stays as it is for
// these 5 minutes, so that a resolver that is down for a while changes nothing.
//
// The environment variable "MAX_DNS_CACHE_SIZE" raises the cache's maximum capacity above
// 131072 names.
//
// Thread safety: callers have a DnsCacheHold over every operation but
// free_dns_hostlist_cache, which locks by itself, and for as long as they use a host.
#pragma once

#include <cstdint>

#include "liblocal/hosts/hostlist_cache.h"

constexpr int64_t kResolvedSeconds = 1800;
constexpr int64_t kUnresolvedSeconds = 300;

extern hostlist_cache dns_hostlist_cache;

/// Holds the lock for a scope, with the name that this host is looked up by in the cache.
class DnsCacheHold {
 public:
  DnsCacheHold();
  ~DnsCacheHold();
  DnsCacheHold(const DnsCacheHold&) = delete;
  DnsCacheHold& operator=(const DnsCacheHold&) = delete;
};

/// The host of `name` as the cache has it, without a look at its state or expiry; null
/// when it is not known.
[[nodiscard]] host_entry* dns_cache_known(const char* name);

/// True for the names of this host that need no look-up: null, empty and "localhost".
[[nodiscard]] bool dns_cache_is_local_word(const char* name);

/// Asks the resolver for `name`, and for the names of its addresses, at the service time
/// `now`, and puts all into `cache`. A null or empty name stands for this host, to which
/// the addresses of all interfaces and their names belong too. Returns the host; one of
/// state HOST_UNRESOLVED when the name does not resolve; null without memory, after a
/// message.
host_entry* dns_cache_resolve(hostlist_cache* cache, const char* name, int64_t now);

/// The host of `name`, resolved when it is not known at the service time `now`, and this
/// host before it. Null when it does not resolve.
[[nodiscard]] host_entry* dns_cache_lookup(const char* name, int64_t now);

/// Forgets all hosts and frees their memory. The process block calls it at exit.
void free_dns_hostlist_cache();

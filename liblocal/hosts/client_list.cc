#include "liblocal/hosts/client_list.h"

#include <strings.h>

#include "liblocal/base/liblvarp.h"
#include "liblocal/base/svc_time.h"
#include "liblocal/hosts/hostlist_cache.h"

namespace {

constexpr int64_t kClientSeconds = 3600;
constexpr hostlist_limits kLimits = {.variable = "MAX_CLIENTS_CACHE_SIZE",
                                     .least_maximum = 0x100000};

hostlist_cache cache = {.limits = &kLimits};

// The host of a client that has not expired; null for others. REQUIRES: the lock is held.
host_entry* client_cache_lookup(const char* name) {
  host_entry* host = name != nullptr ? hostlist_cache_host(&cache, name) : nullptr;
  return host != nullptr && host->expiry >= svc_time() ? host : nullptr;
}

}  // namespace

int client_list_add_client(const char* name, const char* const* aliases) {
  if (name == nullptr) return 0;
  liblocal_add_release(free_client_hostlist_cache);
  VxMutexLock lock(hostlist_cache_lock());
  const int64_t expiry =
      cache.update_style == kClientsNeverExpire ? kHostNeverExpires : svc_time() + kClientSeconds;
  const host_entry* host =
      hostlist_cache_add_host(&cache, nullptr, name, aliases, HOST_LIVE, expiry);
  return host != nullptr ? 1 : 0;
}

void client_list_remove_byname(const char* name) {
  if (name == nullptr) return;
  VxMutexLock lock(hostlist_cache_lock());
  host_entry* host = hostlist_cache_host(&cache, name);
  if (host != nullptr) hostlist_cache_drop_host(&cache, host);
}

int sameclient(const char* name1, const char* name2) {
  if (name1 == nullptr || name2 == nullptr) return 0;
  if (strcasecmp(name1, name2) == 0) return 1;
  VxMutexLock lock(hostlist_cache_lock());
  const host_entry* host = client_cache_lookup(name1);
  return host != nullptr && host == client_cache_lookup(name2) ? 1 : 0;
}

char* get_primaryclientname(const char* name) {
  VxMutexLock lock(hostlist_cache_lock());
  const host_entry* host = client_cache_lookup(name);
  return host != nullptr ? hostlist_copy_name(host->name) : nullptr;
}

int32_t get_client_cache_update_style() {
  VxMutexLock lock(hostlist_cache_lock());
  return cache.update_style;
}

void set_client_cache_update_style(int32_t style) {
  VxMutexLock lock(hostlist_cache_lock());
  cache.update_style = style;
}

void free_client_hostlist_cache() {
  VxMutexLock lock(hostlist_cache_lock());
  hostlist_cache_free(&cache);
}

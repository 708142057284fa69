#include "liblocal/hosts/is_mynam.h"

#include <strings.h>

#include <cerrno>
#include <cstring>

#include "liblocal/base/svc_time.h"
#include "liblocal/hosts/cluster.h"
#include "liblocal/hosts/dns_cache.h"
#include "liblocal/messages/errinfo.h"

int is_myname(const char* name) {
  if (name == nullptr || strcasecmp(name, "localhost") == 0) return 1;
  {
    DnsCacheHold hold;
    const host_entry* host = dns_cache_lookup(name, svc_time());
    if (host != nullptr && host == dns_hostlist_cache.local_host) return 1;
  }
  return clu_is_localvirthost(name);
}

int samehost(const char* name1, const char* name2) {
  if (name1 == name2) return 1;
  if (name1 != nullptr && name2 != nullptr && strcasecmp(name1, name2) == 0) return 1;
  DnsCacheHold hold;
  const int64_t now = svc_time();
  host_entry* host1 = dns_cache_lookup(name1, now);
  if (host1 == nullptr) return 0;
  host1->state = HOST_PINNED;
  const host_entry* host2 = dns_cache_lookup(name2, now);
  if (host1->state == HOST_PINNED) host1->state = HOST_LIVE;
  // Pinned or not, the first host goes when its names are now the second one's.
  return host2 != nullptr && host2 == dns_cache_known(name1) ? 1 : 0;
}

char* get_primaryhostname(const char* name) {
  DnsCacheHold hold;
  const host_entry* host = dns_cache_lookup(name, svc_time());
  if (host == nullptr) return nullptr;
  char* copy = strdup(host->name);
  if (copy == nullptr) err_print(err_set(1, ENOMEM));
  return copy;
}

int is_validhostname(const char* name) {
  DnsCacheHold hold;
  return dns_cache_lookup(name, svc_time()) != nullptr ? 1 : 0;
}

#include "liblocal/hosts/is_mynam.h"

#include <strings.h>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/svc_time.h"
#include "liblocal/base/xmalloc.h"
#include "liblocal/hosts/cluster.h"
#include "liblocal/hosts/dns_cache.h"

namespace {

// A caller's name, copied before the first look-up: it may be in an answer of the resolver that
// the look-up overwrites.
class Name {
 public:
  explicit Name(const char* name) : copy_(xstrdup(name)) {}
  const char* text() const { return copy_.get(); }

  // Null when the name does not resolve. REQUIRES: a DnsCacheHold.
  host_entry* host() const { return dns_cache_lookup(text(), svc_time()); }

 private:
  c_unique_ptr<char> copy_;
};

}  // namespace

int is_myname(const char* name) {
  if (name == nullptr || strcasecmp(name, "localhost") == 0) return 1;
  const Name asked(name);
  DnsCacheHold hold;
  const host_entry* host = asked.host();
  if (host != nullptr && host == dns_hostlist_cache.local_host) return 1;
  return clu_is_localvirthost(asked.text());
}

int samehost(const char* name1, const char* name2) {
  if (name1 == name2) return 1;
  if (name1 != nullptr && name2 != nullptr && strcasecmp(name1, name2) == 0) return 1;
  const Name first(name1);
  const Name second(name2);
  DnsCacheHold hold;
  host_entry* host = first.host();
  if (host == nullptr) return 0;
  host->state = HOST_PINNED;
  const host_entry* other = second.host();
  if (host->state == HOST_PINNED) host->state = HOST_LIVE;
  // The second look-up may have moved the first name to the second one's host.
  const host_entry* now = dns_cache_is_local_word(first.text())
                              ? dns_hostlist_cache.local_host
                              : hostlist_cache_host(&dns_hostlist_cache, first.text());
  return other != nullptr && other == now ? 1 : 0;
}

char* get_primaryhostname(const char* name) {
  const Name asked(name);
  DnsCacheHold hold;
  const host_entry* host = asked.host();
  return host != nullptr ? hostlist_copy_name(host->name) : nullptr;
}

int is_validhostname(const char* name) {
  const Name asked(name);
  DnsCacheHold hold;
  return asked.host() != nullptr ? 1 : 0;
}

#include "liblocal/hosts/dns_cache.h"

#include <arpa/inet.h>
#include <strings.h>

#include <cstring>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/liblvarp.h"
#include "liblocal/base/vx_once.h"
#include "liblocal/hosts/cluster.h"
#include "liblocal/hosts/get_myad.h"
#include "liblocal/hosts/localhost.h"
#include "liblocal/hosts/mtsfuncs.h"
#include "liblocal/messages/debug.h"
#include "liblocal/messages/errinfo.h"

namespace {

constexpr hostlist_limits kLimits = {.variable = "MAX_DNS_CACHE_SIZE", .least_maximum = 0x20000};

vx_once_control prepared;

// What must be done before the caches are locked: the releases run under the lock of the
// registry, and this host's name may take long to resolve.
void prepare() {
  liblocal_add_release(free_dns_hostlist_cache);
  char name[1];
  vx_getlocalhost(name, sizeof name);
}

vx_mutex* lock_to_take() {
  vx_once(&prepared, prepare);
  return hostlist_cache_lock();
}

// An address as dotted text, or the word that replaces it.
struct AddressName {
  char text[INET_ADDRSTRLEN];
};

constexpr AddressName kLocalWord = {"localhost"};

AddressName dotted(in_addr address) {
  AddressName result;
  inet_ntop(AF_INET, &address, result.text, sizeof result.text);
  return result;
}

in_addr address_at(const char* bytes) {
  in_addr address;
  memcpy(&address, bytes, sizeof address);
  return address;
}

// Addresses that are added to a chain when all names are in it.
struct AddressNames {
  size_t count = 0;
  AddressName texts[kMaxLocalAddresses];

  vx_error_record* add_to(hostlist_cache* cache, host_entry* host) const {
    vx_error_record* error = nullptr;
    for (size_t i = 0; i < count && error == nullptr; ++i) {
      error = hostlist_cache_add_names(cache, host, texts[i].text, nullptr);
    }
    return error;
  }
};
static_assert(kHostByNameTextSize <= kMaxLocalAddresses * sizeof(in_addr));

const hostent* reverse_lookup(in_addr address) {
  return vx_ts_gethostbyaddr(&address, sizeof address, AF_INET);
}

// Adds the first label of the official name, with the aliases.
vx_error_record* add_short_name(hostlist_cache* cache, host_entry* host, const hostent& answer) {
  const char* dot = strchr(answer.h_name, '.');
  if (dot == nullptr || dot == answer.h_name) return nullptr;
  c_unique_ptr<char> label(strndup(answer.h_name, static_cast<size_t>(dot - answer.h_name)));
  if (label == nullptr) return err_set(1, ENOMEM);
  return hostlist_cache_add_names(cache, host, label.get(), answer.h_aliases);
}

// Adds the names of the addresses of all interfaces, and then those addresses.
vx_error_record* add_own_addresses(hostlist_cache* cache, host_entry* host) {
  sockaddr_in* table = nullptr;
  const int32_t count = get_myaddrs(&table);
  AddressNames named;
  for (int32_t i = 0; i < count; ++i) {
    const sockaddr_in own = read_myaddr(&table[i]);
    if (own.sin_family != AF_INET) continue;
    const AddressName address = dotted(own.sin_addr);
    const hostent* reverse = reverse_lookup(own.sin_addr);
    if (reverse == nullptr) {
      if (Debug >= 0) debugprintf("Reverse DNS lookup failed for address %s\n", address.text);
      continue;
    }
    if (clu_is_localvirthost(reverse->h_name) != 0) continue;
    vx_error_record* error =
        hostlist_cache_add_names(cache, host, reverse->h_name, reverse->h_aliases);
    if (error != nullptr) return error;
    named.texts[named.count++] = address;
  }
  return named.add_to(cache, host);
}

// Adds the names of the addresses of the answer for `asked`, and then those addresses. Looking up
// addresses leaves the answer as it is.
vx_error_record* add_addresses(hostlist_cache* cache, host_entry* host, const char* asked,
                               const hostent& answer, bool local) {
  AddressNames collected;
  for (char* const* each = answer.h_addr_list; *each != nullptr; ++each) {
    const in_addr address = address_at(*each);
    AddressName text = dotted(address);
    const hostent* reverse = reverse_lookup(address);
    vx_error_record* error = nullptr;
    if (reverse == nullptr) {
      if (Debug >= 0) {
        debugprintf("Reverse DNS lookup failed for host %s, address %s\n", asked, text.text);
      }
    } else if (local && clu_is_localvirthost(reverse->h_name) != 0) {
      text = kLocalWord;
    } else {
      error = hostlist_cache_add_names(cache, host, reverse->h_name, nullptr);
    }
    if (error != nullptr) return error;
    collected.texts[collected.count++] = text;
  }
  return collected.add_to(cache, host);
}

// A failure here only leaves names out.
void become_local_host(hostlist_cache* cache, host_entry* host, const hostent& answer) {
  cache->local_host = host;
  const vx_error_record* error = add_short_name(cache, host, answer);
  if (error == nullptr) error = add_own_addresses(cache, host);
  if (error != nullptr && Debug >= 0) debugprintf("%s", error->text);
}

}  // namespace

hostlist_cache dns_hostlist_cache = {.limits = &kLimits};

DnsCacheHold::DnsCacheHold() : lock_(lock_to_take()) {
  auto& name = dns_hostlist_cache.local_host_name;
  if (*name == '\0' || *name == ' ') vx_getlocalhost(name, sizeof name);
}

bool dns_cache_is_local_word(const char* name) {
  return name == nullptr || *name == '\0' || strcasecmp(name, kLocalWord.text) == 0;
}

host_entry* dns_cache_resolve(hostlist_cache* cache, const char* name, int64_t now) {
  const bool local = name == nullptr || *name == '\0';
  const char* asked = local ? cache->local_host_name : name;
  const hostent* answer = vx_ts_gethostbyname(asked);
  if (answer == nullptr || answer->h_addrtype != AF_INET || *answer->h_addr_list == nullptr) {
    if (Debug >= 1) debugprintf("Illegal/NULL hostname detected (%s)\n", asked);
    return hostlist_cache_add_host(cache, nullptr, asked, nullptr, HOST_UNRESOLVED,
                                   now + kUnresolvedSeconds);
  }
  const AddressName key = dotted(address_at(*answer->h_addr_list));
  if (local) cache->local_host = nullptr;  // its names may move to another primary entry
  host_entry* host = hostlist_cache_add_host(cache, key.text, answer->h_name, answer->h_aliases,
                                             HOST_LIVE, now + kResolvedSeconds);
  if (host == nullptr) return nullptr;
  if (local) become_local_host(cache, host, *answer);
  vx_error_record* error = add_addresses(cache, host, asked, *answer, local);
  if (error == nullptr) {
    error = hostlist_cache_add_names(cache, host, local ? kLocalWord.text : name, nullptr);
  }
  if (error == nullptr) return host;
  err_print(error);
  hostlist_cache_drop_host(cache, host);
  return nullptr;
}

host_entry* dns_cache_lookup(const char* name, int64_t now) {
  hostlist_cache* cache = &dns_hostlist_cache;
  if (cache->local_host == nullptr || cache->local_host->expiry < now) {
    dns_cache_resolve(cache, nullptr, now);
  }
  if (dns_cache_is_local_word(name)) return cache->local_host;
  host_entry* host = hostlist_cache_host(cache, name);
  if (host == nullptr || host->expiry < now) host = dns_cache_resolve(cache, name, now);
  return host == nullptr || host->state == HOST_UNRESOLVED ? nullptr : host;
}

void free_dns_hostlist_cache() {
  VxMutexLock lock(hostlist_cache_lock());
  hostlist_cache_free(&dns_hostlist_cache);
}

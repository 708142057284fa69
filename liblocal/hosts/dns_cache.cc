#include "liblocal/hosts/dns_cache.h"

#include <arpa/inet.h>
#include <strings.h>

#include <array>
#include <bit>
#include <charconv>
#include <cstring>
#include <iterator>
#include <span>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/vx_once.h"
#include "liblocal/hosts/cluster.h"
#include "liblocal/hosts/get_myad.h"
#include "liblocal/hosts/localhost.h"
#include "liblocal/hosts/mtsfuncs.h"
#include "liblocal/messages/debug.h"
#include "liblocal/messages/errinfo.h"

namespace {

constexpr hostlist_limits kLimits = {.variable = "MAX_DNS_CACHE_SIZE", .least_maximum = 0x20000};

vx_once_control release_once;

// Before the lock is held: at exit the cleaners run, and take it, under the registry's.
void arrange_release() {
  liblocal_set_release(LiblocalRelease::kDnsHostCache, free_dns_hostlist_cache);
  get_liblocal_p_varp();
}

bool knows_own_name(const hostlist_cache* cache) {
  const char first = cache->local_host_name[0];
  return first != '\0' && first != ' ';
}

struct DottedText {
  char text[INET_ADDRSTRLEN];
};

constexpr DottedText kLocalWord = {"localhost"};  // may stand for an address

// By hand, since the platform's conversion brings its whole formatter along.
DottedText dotted(in_addr address) {
  DottedText result;
  char* at = result.text;
  for (uint8_t byte : std::bit_cast<std::array<uint8_t, sizeof address>>(address)) {
    at = std::to_chars(at, std::end(result.text), byte).ptr;
    *at++ = '.';
  }
  at[-1] = '\0';
  return result;
}

// What a resolver's answer holds of addresses: the answer's own place may be used again
// before all of them are.
struct AddressList {
  in_addr addresses[kHostByNameTextSize / sizeof(in_addr)];
  size_t count = 0;

  explicit AddressList(const hostent& answer) {
    for (char* const* each = answer.h_addr_list; *each != nullptr; ++each) {
      memcpy(&addresses[count++], *each, sizeof(in_addr));
    }
  }
  std::span<const in_addr> all() const { return {addresses, count}; }
};

// Addresses, one's own or of an answer, that wait until all names are in a chain.
struct DottedList {
  DottedText texts[kMaxLocalAddresses];
  size_t count = 0;

  vx_error_record* add_to(hostlist_cache* cache, host_entry* host) const {
    vx_error_record* error = nullptr;
    for (size_t i = 0; i < count && error == nullptr; ++i) {
      error = hostlist_cache_add_names(cache, host, texts[i].text, nullptr);
    }
    return error;
  }
};
static_assert(sizeof AddressList::addresses <= kMaxLocalAddresses * sizeof(in_addr));

const hostent* reverse_lookup(in_addr address) {
  return vx_ts_gethostbyaddr(&address, sizeof address, AF_INET);
}

// The first label of the official name, with the aliases.
vx_error_record* add_short_name(hostlist_cache* cache, host_entry* host, const hostent& answer) {
  const char* dot = strchr(answer.h_name, '.');
  if (dot == nullptr || dot == answer.h_name) return nullptr;
  c_unique_ptr<char> label(strndup(answer.h_name, static_cast<size_t>(dot - answer.h_name)));
  if (label == nullptr) return err_set(1, ENOMEM);
  return hostlist_cache_add_names(cache, host, label.get(), answer.h_aliases);
}

// What the addresses of all interfaces are called, and then those addresses.
vx_error_record* add_own_addresses(hostlist_cache* cache, host_entry* host) {
  sockaddr_in* table = nullptr;
  const int32_t count = get_myaddrs(&table);
  DottedList named;
  for (int32_t i = 0; i < count; ++i) {
    const sockaddr_in own = read_myaddr(&table[i]);
    if (own.sin_family != AF_INET) continue;
    const DottedText address = dotted(own.sin_addr);
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

// What the addresses of the answer for `asked` are called, and then those addresses.
vx_error_record* add_addresses(hostlist_cache* cache, host_entry* host, const char* asked,
                               const AddressList& addresses, bool local) {
  DottedList collected;
  for (in_addr address : addresses.all()) {
    DottedText text = dotted(address);
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

// A failure here leaves out names; the host is good without them.
void become_local_host(hostlist_cache* cache, host_entry* host, const hostent& answer) {
  cache->local_host = host;
  const vx_error_record* error = add_short_name(cache, host, answer);
  if (error == nullptr) error = add_own_addresses(cache, host);
  if (error != nullptr && Debug >= 0) debugprintf("%s", error->text);
}

// Whether this host is to be resolved. A name of its own that does not resolve is not
// tried again before its time either.
bool local_host_is_due(const hostlist_cache* cache, int64_t now) {
  if (cache->local_host != nullptr && cache->local_host->expiry >= now) return false;
  const host_entry* known = hostlist_cache_host(cache, cache->local_host_name);
  return known == nullptr || known->state != HOST_UNRESOLVED || known->expiry < now;
}

}  // namespace

hostlist_cache dns_hostlist_cache = {.limits = &kLimits};

DnsCacheHold::DnsCacheHold() {
  vx_once(&release_once, arrange_release);
  vx_mutex* lock = hostlist_cache_lock();
  vx_mutex_lock(lock);
  if (knows_own_name(&dns_hostlist_cache)) return;
  vx_mutex_unlock(lock);  // the first to ask for the name waits for the resolver
  char name[kLocalHostNameSize];
  vx_getlocalhost(name, sizeof name);
  vx_mutex_lock(lock);
  memcpy(dns_hostlist_cache.local_host_name, name, sizeof name);
}

DnsCacheHold::~DnsCacheHold() { vx_mutex_unlock(hostlist_cache_lock()); }

host_entry* dns_cache_known(const char* name) {
  const hostlist_cache* cache = &dns_hostlist_cache;
  return dns_cache_is_local_word(name) ? cache->local_host : hostlist_cache_host(cache, name);
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
  const AddressList addresses(*answer);
  const DottedText key = dotted(addresses.addresses[0]);
  if (local) cache->local_host = nullptr;  // what belonged to it may come to another entry
  host_entry* host = hostlist_cache_add_host(cache, key.text, answer->h_name, answer->h_aliases,
                                             HOST_LIVE, now + kResolvedSeconds);
  if (host == nullptr) return nullptr;
  if (local) become_local_host(cache, host, *answer);
  vx_error_record* error = add_addresses(cache, host, asked, addresses, local);
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
  if (local_host_is_due(cache, now)) dns_cache_resolve(cache, nullptr, now);
  if (dns_cache_is_local_word(name)) return cache->local_host;
  host_entry* host = dns_cache_known(name);
  if (host == nullptr || host->expiry < now) host = dns_cache_resolve(cache, name, now);
  return host == nullptr || host->state == HOST_UNRESOLVED ? nullptr : host;
}

void free_dns_hostlist_cache() {
  VxMutexLock lock(hostlist_cache_lock());
  hostlist_cache_free(&dns_hostlist_cache);
}

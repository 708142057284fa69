#include "rpc/portmap/pmap_cache.h"

#include <netinet/in.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "liblocal/startup/vxenv.h"
#include "rpc/handle/rpcvarp.h"

namespace {

constexpr char kVariable[] = "KIVENV_PMAPS";
constexpr size_t kExportLimit = kPmapsSize - 100;  // bytes behind which no group is begun

// The runtime's own services, all of them over TCP.
constexpr unsigned long kCacheablePrograms[] = {390113, 390103, 390109, 390110, 390107, 390105};

bool is_off() {
  rpc_p_varp* process = get_rpc_p_varp();
  return process == nullptr || process->pmap_cache_off;
}

rpc_port_entry* find(rpc_port_entry* entry, const pmap& wanted) {
  while (entry != nullptr &&
         (entry->program != wanted.program || entry->version != wanted.version ||
          entry->protocol != wanted.protocol)) {
    entry = entry->next;
  }
  return entry;
}

void enter(rpc_port_entry** cache, const pmap& mapping) {
  rpc_port_entry* entry = find(*cache, mapping);
  if (entry == nullptr) {
    entry = static_cast<rpc_port_entry*>(malloc(sizeof(rpc_port_entry)));
    if (entry == nullptr) return;
    *entry = {mapping.program, mapping.version, mapping.protocol, 0, *cache};
    *cache = entry;
  }
  entry->port = mapping.port;
}

// The calling thread's cache, filled from the environment before its first use.
rpc_port_entry** own_cache() {
  rpc_t_varp* thread = get_rpc_t_varp();
  if (!thread->port_cache_read) {
    thread->port_cache_read = true;
    pmap mapping{};
    for (const char* text = vxgetenv(kVariable);
         text != nullptr && (text = pmap_parse_group(text, &mapping)) != nullptr;) {
      enter(&thread->port_cache, mapping);
    }
  }
  return &thread->port_cache;
}

void export_to_environment(const rpc_port_entry* entry) {
  char text[kPmapsSize];
  size_t length = 0;
  text[0] = '\0';
  for (; entry != nullptr && length <= kExportLimit; entry = entry->next) {
    length +=
        static_cast<size_t>(snprintf(text + length, sizeof text - length, "{%lu,%lu,%lu,%lu}",
                                     entry->program, entry->version, entry->protocol, entry->port));
  }
  add_to_environment(kVariable, text, 0);
}

const rpc_port_entry* find_cached(unsigned long program, unsigned long version,
                                  unsigned long protocol) {
  return is_off() ? nullptr : find(*own_cache(), {program, version, protocol, 0});
}

}  // namespace

unsigned long pmap_cached_port(unsigned long program, unsigned long version,
                               unsigned long protocol) {
  const rpc_port_entry* entry = find_cached(program, version, protocol);
  return entry != nullptr ? entry->port : 0;
}

bool pmap_is_cacheable(unsigned long program, unsigned long protocol) {
  if (protocol != IPPROTO_TCP || is_off()) return false;
  for (unsigned long cacheable : kCacheablePrograms) {
    if (program == cacheable) return true;
  }
  return false;
}

void populate_pmaps(unsigned long program, unsigned long version, unsigned long protocol,
                    unsigned long port, int export_cache) {
  if (!pmap_is_cacheable(program, protocol)) return;
  rpc_port_entry** cache = own_cache();
  enter(cache, {program, version, protocol, port});
  if (export_cache != 0) export_to_environment(*cache);
}

void add_pamp_to_env(unsigned long program, unsigned long version) {
  const rpc_port_entry* entry = find_cached(program, version, IPPROTO_TCP);
  if (entry != nullptr) populate_pmaps(program, version, IPPROTO_TCP, entry->port, 1);
}

void disable_cacheable_pmap() {
  rpc_p_varp* process = get_rpc_p_varp();
  if (process != nullptr) process->pmap_cache_off = true;
}

const char* pmap_parse_group(const char* text, pmap* mapping) {
  if (*text != '{') return nullptr;
  unsigned long* const numbers[] = {&mapping->program, &mapping->version, &mapping->protocol,
                                    &mapping->port};
  for (unsigned long* number : numbers) {
    const char* start = text + 1;
    text = strchr(start, number == &mapping->port ? '}' : ',');
    if (text == nullptr) return nullptr;
    *number = static_cast<unsigned long>(strtol(start, nullptr, 10));
  }
  return text + 1;
}

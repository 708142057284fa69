#include "liblocal/hosts/mtsfuncs.h"

#include <netinet/in.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/liblvarp.h"
#include "liblocal/base/svc_time.h"
#include "liblocal/base/xmalloc.h"

namespace {

constexpr uint64_t kSeedFactor = 231;
constexpr int kRandomMask = 0x7fffffff;

// The entry that `call` finds for `key` and stores in `entry` and `text`. One that does not exist
// is no error, but gives no result.
template <typename Call, typename Entry, size_t kSize, typename... Key>
Entry* found(Call call, Entry& entry, char (&text)[kSize], Key... key) {
  Entry* result = nullptr;
  return call(key..., &entry, text, kSize, &result) == 0 ? result : nullptr;
}

// `found` for the resolver, whose calls have an error code of their own.
template <typename Call, size_t kSize, typename... Key>
hostent* found_host(Call call, hostent& entry, char (&text)[kSize], int* error, Key... key) {
  hostent* result = nullptr;
  return call(key..., &entry, text, kSize, &result, error) == 0 ? result : nullptr;
}

// A copy of a caller's text, which may be in an answer that the look-up overwrites.
c_unique_ptr<char> copy_of(const char* text) { return c_unique_ptr<char>(xstrdup(text)); }

}  // namespace

hostent* vx_ts_gethostbyname(const char* name) {
  if (name == nullptr) return nullptr;
  while (isspace(static_cast<unsigned char>(*name)) != 0) ++name;
  liblocal_t_varp* own = get_liblocal_t_varp();
  return found_host(gethostbyname_r, own->hostbyname_entry, own->hostbyname_text,
                    &own->hostbyname_error, copy_of(name).get());
}

hostent* vx_ts_gethostbyaddr(const void* address, socklen_t length, int type) {
  in6_addr asked;  // a copy, as of names; no address is longer
  if (address == nullptr || length > sizeof asked) return nullptr;
  memcpy(&asked, address, length);
  liblocal_t_varp* own = get_liblocal_t_varp();
  return found_host(gethostbyaddr_r, own->hostbyaddr_entry, own->hostbyaddr_text,
                    &own->hostbyaddr_error, &asked, length, type);
}

hostent* vx_ts_gethostent() {
  liblocal_t_varp* own = get_liblocal_t_varp();
  return found_host(gethostent_r, own->hostent_entry, own->hostent_text, &own->hostent_error);
}

protoent* vx_ts_getprotobyname(const char* name) {
  if (name == nullptr) return nullptr;
  liblocal_t_varp* own = get_liblocal_t_varp();
  return found(getprotobyname_r, own->protobyname_entry, own->protobyname_text,
               copy_of(name).get());
}

servent* vx_ts_getservbyname(const char* name, const char* protocol) {
  if (name == nullptr) return nullptr;
  liblocal_t_varp* own = get_liblocal_t_varp();
  return found(getservbyname_r, own->servbyname_entry, own->servbyname_text, copy_of(name).get(),
               copy_of(protocol).get());
}

servent* vx_ts_getservbyport(int port, const char* protocol) {
  liblocal_t_varp* own = get_liblocal_t_varp();
  return found(getservbyport_r, own->servbyport_entry, own->servbyport_text, port,
               copy_of(protocol).get());
}

servent* vx_ts_getservent() {
  liblocal_t_varp* own = get_liblocal_t_varp();
  return found(getservent_r, own->servent_entry, own->servent_text);
}

passwd* vx_ts_getpwnam(const char* name) {
  if (name == nullptr) return nullptr;
  liblocal_t_varp* own = get_liblocal_t_varp();
  return found(getpwnam_r, own->pwnam_entry, own->pwnam_text, copy_of(name).get());
}

passwd* vx_ts_getpwuid(uid_t user) {
  liblocal_t_varp* own = get_liblocal_t_varp();
  return found(getpwuid_r, own->pwuid_entry, own->pwuid_text, user);
}

group* vx_ts_getgrgid(gid_t group_id) {
  liblocal_t_varp* own = get_liblocal_t_varp();
  return found(getgrgid_r, own->grgid_entry, own->grgid_text, group_id);
}

char* vx_ts_asctime(const tm* fields) {
  return asctime_r(fields, get_liblocal_t_varp()->asctime_text);
}

char* vx_ts_ctime(const time_t* time) { return ctime_r(time, get_liblocal_t_varp()->ctime_text); }

tm* vx_ts_gmtime(const time_t* time) {
  return gmtime_r(time, &get_liblocal_t_varp()->gmtime_fields);
}

tm* vx_ts_localtime(const time_t* time) {
  return localtime_r(time, &get_liblocal_t_varp()->localtime_fields);
}

void vx_ts_srand(uint32_t extra) {
  uint32_t& seed = get_liblocal_t_varp()->random_seed;
  uint64_t mixed = static_cast<uint64_t>(vx_time()) * kSeedFactor + static_cast<uint64_t>(getpid());
  if (extra != 0) mixed = mixed * kSeedFactor + extra;
  seed += static_cast<uint32_t>(mixed >> 32) + static_cast<uint32_t>(mixed);
  srand(seed);
}

int vx_ts_rand() {
  uint32_t& seed = get_liblocal_t_varp()->random_seed;
  if (seed == 0) vx_ts_srand(0);
  return rand_r(&seed) & kRandomMask;
}

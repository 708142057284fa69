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

// Every look-up: `call` stores its result last and returns 0 or an error. An entry that does
// not exist is no error, but gives no result.
template <typename Entry, typename Call>
Entry* found(Call call) {
  Entry* result = nullptr;
  return call(&result) == 0 ? result : nullptr;
}

// A copy of a caller's text, which may be in an answer that the look-up overwrites.
c_unique_ptr<char> copy_of(const char* text) { return c_unique_ptr<char>(xstrdup(text)); }

}  // namespace

hostent* vx_ts_gethostbyname(const char* name) {
  if (name == nullptr) return nullptr;
  while (isspace(static_cast<unsigned char>(*name)) != 0) ++name;
  const auto asked = copy_of(name);
  liblocal_t_varp* own = get_liblocal_t_varp();
  return found<hostent>([&](hostent** result) {
    return gethostbyname_r(asked.get(), &own->hostbyname_entry, own->hostbyname_text,
                           sizeof own->hostbyname_text, result, &own->hostbyname_error);
  });
}

hostent* vx_ts_gethostbyaddr(const void* address, socklen_t length, int type) {
  in6_addr asked;  // a copy, as of names; no address is longer
  if (address == nullptr || length > sizeof asked) return nullptr;
  memcpy(&asked, address, length);
  liblocal_t_varp* own = get_liblocal_t_varp();
  return found<hostent>([&](hostent** result) {
    return gethostbyaddr_r(&asked, length, type, &own->hostbyaddr_entry, own->hostbyaddr_text,
                           sizeof own->hostbyaddr_text, result, &own->hostbyaddr_error);
  });
}

hostent* vx_ts_gethostent() {
  liblocal_t_varp* own = get_liblocal_t_varp();
  return found<hostent>([&](hostent** result) {
    return gethostent_r(&own->hostent_entry, own->hostent_text, sizeof own->hostent_text, result,
                        &own->hostent_error);
  });
}

protoent* vx_ts_getprotobyname(const char* name) {
  if (name == nullptr) return nullptr;
  const auto asked = copy_of(name);
  liblocal_t_varp* own = get_liblocal_t_varp();
  return found<protoent>([&](protoent** result) {
    return getprotobyname_r(asked.get(), &own->protobyname_entry, own->protobyname_text,
                            sizeof own->protobyname_text, result);
  });
}

servent* vx_ts_getservbyname(const char* name, const char* protocol) {
  if (name == nullptr) return nullptr;
  const auto asked = copy_of(name);
  const auto asked_protocol = copy_of(protocol);
  liblocal_t_varp* own = get_liblocal_t_varp();
  return found<servent>([&](servent** result) {
    return getservbyname_r(asked.get(), asked_protocol.get(), &own->servbyname_entry,
                           own->servbyname_text, sizeof own->servbyname_text, result);
  });
}

servent* vx_ts_getservbyport(int port, const char* protocol) {
  const auto asked_protocol = copy_of(protocol);
  liblocal_t_varp* own = get_liblocal_t_varp();
  return found<servent>([&](servent** result) {
    return getservbyport_r(port, asked_protocol.get(), &own->servbyport_entry, own->servbyport_text,
                           sizeof own->servbyport_text, result);
  });
}

servent* vx_ts_getservent() {
  liblocal_t_varp* own = get_liblocal_t_varp();
  return found<servent>([&](servent** result) {
    return getservent_r(&own->servent_entry, own->servent_text, sizeof own->servent_text, result);
  });
}

passwd* vx_ts_getpwnam(const char* name) {
  if (name == nullptr) return nullptr;
  const auto asked = copy_of(name);
  liblocal_t_varp* own = get_liblocal_t_varp();
  return found<passwd>([&](passwd** result) {
    return getpwnam_r(asked.get(), &own->pwnam_entry, own->pwnam_text, sizeof own->pwnam_text,
                      result);
  });
}

passwd* vx_ts_getpwuid(uid_t user) {
  liblocal_t_varp* own = get_liblocal_t_varp();
  return found<passwd>([&](passwd** result) {
    return getpwuid_r(user, &own->pwuid_entry, own->pwuid_text, sizeof own->pwuid_text, result);
  });
}

group* vx_ts_getgrgid(gid_t group_id) {
  liblocal_t_varp* own = get_liblocal_t_varp();
  return found<group>([&](group** result) {
    return getgrgid_r(group_id, &own->grgid_entry, own->grgid_text, sizeof own->grgid_text, result);
  });
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

#include "liblocal/mtsfuncs.h"

#include <cctype>

namespace {

constexpr size_t kHostBuffer = 8192;     // bytes for one host's names and addresses
constexpr size_t kServiceBuffer = 1024;  // bytes for one service's names

struct HostResult {
  hostent entry;
  char buffer[kHostBuffer];
  int error;
};

struct ServiceResult {
  servent entry;
  char buffer[kServiceBuffer];
};

thread_local HostResult host_by_name;
thread_local ServiceResult service_by_name;

}  // namespace

hostent* vx_ts_gethostbyname(const char* name) {
  while (isspace(static_cast<unsigned char>(*name)) != 0) ++name;
  hostent* result = nullptr;
  HostResult& own = host_by_name;
  if (gethostbyname_r(name, &own.entry, own.buffer, sizeof own.buffer, &result, &own.error) != 0) {
    return nullptr;
  }
  return result;
}

servent* vx_ts_getservbyname(const char* name, const char* protocol) {
  servent* result = nullptr;
  ServiceResult& own = service_by_name;
  if (getservbyname_r(name, protocol, &own.entry, own.buffer, sizeof own.buffer, &result) != 0) {
    return nullptr;
  }
  return result;
}

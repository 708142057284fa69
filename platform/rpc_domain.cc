#include "platform/rpc_domain.h"

#include <sys/utsname.h>

#include <cstring>

long rpc_domain_name(char* buffer, size_t size) {
  utsname host;
  if (uname(&host) != 0) return -1;
  // What Linux says where no domain was ever set.
  const char* name = strcmp(host.domainname, "(none)") == 0 ? "" : host.domainname;
  size_t length = strlen(name);
  if (size > 0) {
    size_t kept = length < size ? length : size - 1;
    memcpy(buffer, name, kept);
    buffer[kept] = '\0';
  }
  return static_cast<long>(length) + 1;
}

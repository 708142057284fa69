#include "liblocal/localhost.h"

#include <netdb.h>
#include <unistd.h>

#include <cstdio>

#include "liblocal/mtsfuncs.h"

namespace {

constexpr size_t kHostNameSize = 256;  // bytes, terminator included

struct LocalHost {
  char name[kHostNameSize] = "localhost";

  LocalHost() {
    char own[kHostNameSize];
    if (gethostname(own, sizeof own) != 0) return;
    own[sizeof own - 1] = '\0';
    const hostent* host = vx_ts_gethostbyname(own);
    if (host == nullptr) return;
    snprintf(name, sizeof name, "%s", host->h_name);
    for (char* c = name; *c != '\0'; ++c) {
      if (*c >= 'A' && *c <= 'Z') *c = static_cast<char>(*c - 'A' + 'a');
    }
  }
};

}  // namespace

char* vx_getlocalhost(char* buffer, size_t size) {
  static const LocalHost local;
  snprintf(buffer, size, "%s", local.name);
  return buffer;
}

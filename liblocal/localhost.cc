#include "liblocal/localhost.h"

#include <netdb.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdio>

#include "liblocal/mtsfuncs.h"

namespace {

constexpr size_t kHostNameSize = 256;  // bytes, terminator included

char local_name[kHostNameSize] = "localhost";
pthread_once_t resolved = PTHREAD_ONCE_INIT;

void resolve_own_name() {
  char own[kHostNameSize];
  if (gethostname(own, sizeof own) != 0) return;
  own[sizeof own - 1] = '\0';
  const hostent* host = vx_ts_gethostbyname(own);
  if (host == nullptr) return;
  snprintf(local_name, sizeof local_name, "%s", host->h_name);
  for (char* c = local_name; *c != '\0'; ++c) {
    if (*c >= 'A' && *c <= 'Z') *c = static_cast<char>(*c - 'A' + 'a');
  }
}

}  // namespace

char* vx_getlocalhost(char* buffer, size_t size) {
  pthread_once(&resolved, resolve_own_name);
  snprintf(buffer, size, "%s", local_name);
  return buffer;
}

#include "liblocal/hosts/localhost.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "liblocal/base/vx_error.h"
#include "liblocal/base/vx_once.h"
#include "liblocal/hosts/mtsfuncs.h"
#include "liblocal/text/ascii.h"
#include "liblocal/text/text_view.h"

namespace {

constexpr size_t kHostNameSize = 256;  // bytes, terminator included

char local_name[kHostNameSize] = "localhost";
vx_once_control resolved;

int fail(int error) {
  vx_error_set_last(error, kVxErrorErrno);
  return -1;
}

void resolve_own_name() {
  char own[kHostNameSize];
  if (vx_gethostname(own, sizeof own) != 0) return;
  const hostent* host = vx_ts_gethostbyname(own);
  if (host == nullptr) return;
  text_copy_cut(host->h_name, local_name, sizeof local_name);
  lower_ascii(local_name);
}

}  // namespace

char* vx_getlocalhost(char* buffer, size_t size) {
  vx_once(&resolved, resolve_own_name);
  text_copy_cut(local_name, buffer, size);
  return buffer;
}

int vx_gethostname(char* buffer, size_t size) {
  return gethostname(buffer, size) == 0 ? 0 : fail(errno);
}

int vx_getdomainname(char* buffer, size_t size) {
  utsname host;
  if (uname(&host) != 0) return fail(errno);
  // Linux says "(none)" where no domain was ever set.
  const char* name = strcmp(host.domainname, "(none)") == 0 ? "" : host.domainname;
  text_copy_cut(name, buffer, size);
  if (strlen(name) >= size) return fail(ERANGE);
  lower_ascii(buffer);
  return 0;
}

#include "liblocal/hosts/localhost.h"

#include <unistd.h>

#include <cerrno>

#include "liblocal/hosts/mtsfuncs.h"
#include "liblocal/text/ascii.h"
#include "liblocal/text/text_view.h"
#include "liblocal/threads/vx_error.h"
#include "liblocal/threads/vx_once.h"
#include "platform/rpc_domain.h"

namespace {

constexpr size_t kHostNameSize = 256;  // bytes, terminator included

char local_name[kHostNameSize] = "localhost";
vx_once_control resolved;

void to_lower(char* text) {
  for (; *text != '\0'; ++text) *text = ascii_lower(*text);
}

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
  to_lower(local_name);
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
  long needed = rpc_domain_name(buffer, size);
  if (needed < 0) return fail(errno);
  if (static_cast<size_t>(needed) > size) return fail(ERANGE);
  to_lower(buffer);
  return 0;
}

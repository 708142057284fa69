#include "rpc/transport/tcp_settings.h"

#include "liblocal/base/vx_once.h"
#include "liblocal/messages/debug.h"
#include "liblocal/startup/vxenv.h"
#include "liblocal/text/ascii.h"

namespace {

BlockingMode mode = BlockingMode::kWithoutLimit;
bool keeps_buffers = false;

void read_mode() {
  const char* value = vxgetenv("KIV_BLOCKING_RPC");
  if (value == nullptr) return;
  if (same_ignoring_case(value, "FALSE")) mode = BlockingMode::kNever;
  if (same_ignoring_case(value, "MUST")) mode = BlockingMode::kAlways;
}

void read_buffers() {
  const char* value = vxgetenv("KIV_SOCK_BUF_UNSET");
  if (value == nullptr || (*value != 'y' && *value != 'Y')) return;
  keeps_buffers = true;
  dfprintf(1,
           "The environment variable KIV_SOCK_BUF_UNSET is set to '%s'. This overrides default "
           "behavior",
           value);
}

}  // namespace

BlockingMode tcp_blocking_mode() {
  static vx_once_control once;
  vx_once(&once, read_mode);
  return mode;
}

bool tcp_keeps_socket_buffers() {
  static vx_once_control once;
  vx_once(&once, read_buffers);
  return keeps_buffers;
}

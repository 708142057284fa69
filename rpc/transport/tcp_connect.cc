#include "rpc/transport/tcp_connect.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "rpc/handle/rpcvarp.h"
#include "rpc/transport/brsvport.h"
#include "rpc/transport/c_transport.h"
#include "rpc/transport/common.h"

namespace {

constexpr int32_t kPortsOfSystem = 65535;  // when none are configured

// A signal leaves the connection under way; its end is waited for. Returns 0 or the
// error number.
int finish_interrupted_connect(int descriptor) {
  while (rpc_wait_for(descriptor, POLLOUT, nullptr) == -1) {
    if (errno != EINTR) return errno;
  }
  int error = 0;
  socklen_t length = sizeof error;
  return getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &length) == 0 ? error : errno;
}

int connect_to(int descriptor, const sockaddr_in& server) {
  if (connect(descriptor, reinterpret_cast<const sockaddr*>(&server), sizeof server) == 0) return 0;
  return errno == EINTR ? finish_interrupted_connect(descriptor) : errno;
}

}  // namespace

int tcp_open_connection(const sockaddr_in& server) {
  const int32_t ports = rpcport_count(kPortConnection);
  for (int32_t tries = 2 * (ports > 0 ? ports : kPortsOfSystem);; --tries) {
    int descriptor = rpc_open_client_socket(SOCK_STREAM, IPPROTO_TCP);
    if (descriptor == -1) return -1;
    int error = connect_to(descriptor, server);
    if (error == 0) {
      const int on = 1;
      setsockopt(descriptor, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
      return descriptor;
    }
    rpc_close(descriptor);
    if (error != EADDRINUSE || tries <= 1) {
      errno = error;
      rpc_set_createerr(RPC_SYSTEMERROR, error);
      return -1;
    }
  }
}

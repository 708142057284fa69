#include "tests/failing_calls.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>

using namespace failing_calls;

namespace {

bool is_refused(Refusal& calls, int buffers = 0) {
  calls.most = std::max(calls.most.load(), buffers);
  if (calls.left <= 0) return false;
  --calls.left;
  errno = calls.error;
  return true;
}

}  // namespace

// The names that the linker's --wrap gives to what is called and to the real one.
extern "C" {
int __real_connect(int socket, const sockaddr* address, socklen_t length);
ssize_t __real_readv(int descriptor, const iovec* buffers, int count);
ssize_t __real_recv(int socket, void* buffer, size_t size, int flags);
ssize_t __real_sendmsg(int socket, const msghdr* message, int flags);
int __real_ppoll(pollfd* polled, nfds_t count, const timespec* timeout, const sigset_t* mask);
int __real_select(int count, fd_set* in, fd_set* out, fd_set* exceptional, timeval* timeout);

int __wrap_connect(int socket, const sockaddr* address, socklen_t length) {
  if (!is_refused(connects)) return __real_connect(socket, address, length);
  if (errno != EINTR) return -1;
  fcntl(socket, F_SETFL, O_NONBLOCK);
  __real_connect(socket, address, length);
  fcntl(socket, F_SETFL, 0);
  errno = EINTR;
  return -1;
}

ssize_t __wrap_readv(int descriptor, const iovec* buffers, int count) {
  return is_refused(reads, count) ? -1 : __real_readv(descriptor, buffers, count);
}

ssize_t __wrap_recv(int socket, void* buffer, size_t size, int flags) {
  return is_refused(reads) ? -1 : __real_recv(socket, buffer, size, flags);
}

ssize_t __wrap_sendmsg(int socket, const msghdr* message, int flags) {
  const auto buffers = static_cast<int>(message->msg_iovlen);
  return is_refused(writes, buffers) ? -1 : __real_sendmsg(socket, message, flags);
}

int __wrap_ppoll(pollfd* polled, nfds_t count, const timespec* timeout, const sigset_t* mask) {
  if (timeout != nullptr) last_wait = {timeout->tv_sec, timeout->tv_nsec / 1000};
  if (is_refused(waits)) return waits.error == 0 ? 0 : -1;
  return __real_ppoll(polled, count, timeout, mask);
}

int __wrap_select(int count, fd_set* in, fd_set* out, fd_set* exceptional, timeval* timeout) {
  last_wait = *timeout;
  if (is_refused(waits)) return waits.error == 0 ? 0 : -1;
  return __real_select(count, in, out, exceptional, timeout);
}
}

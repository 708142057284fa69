#include "rpc/transport/brsvport.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iterator>

#include "liblocal/base/vx_error.h"
#include "liblocal/base/vx_mutex.h"
#include "liblocal/base/vx_once.h"
#include "liblocal/hosts/mtsfuncs.h"
#include "liblocal/messages/debug.h"
#include "liblocal/messages/errinfo.h"
#include "liblocal/messages/print.h"

namespace {

constexpr const char* kTypeNames[] = {"service", "connection", "reserved"};
constexpr int32_t kManyPorts = 500;  // a type with more tries a quarter of them at random
constexpr int32_t kFewRandomTries = 7;
constexpr int32_t kMostRandomTries = 713;

// Ranges are never taken away.
struct PortRange {
  int32_t low;
  int32_t high;
  int32_t cursor;  // where the next walk begins
  PortRange* next;
};

struct TypeRanges {
  PortRange* first;  // in the order they were added
  int32_t ports;     // in all of them
};

// Guarded by table_lock, which is made once.
TypeRanges table[std::size(kTypeNames)];
vx_mutex* table_lock = nullptr;
vx_once_control table_once;

void make_lock() {
  table_lock = vx_mutex_new();
  if (table_lock != nullptr) return;
  char reason[256];
  vx_error_get_message(reason, sizeof reason);
  printerr("Failed to create RPC port range lock: %s\n", reason);
}

vx_mutex* lock_of_table() {
  vx_once(&table_once, make_lock);
  return table_lock;
}

bool is_type(int32_t type) { return type >= 0 && type < std::ssize(kTypeNames); }

int bind_to(int socket, sockaddr_in* address, int32_t port) {
  address->sin_port = htons(static_cast<uint16_t>(port));
  return bind(socket, reinterpret_cast<const sockaddr*>(address), sizeof *address);
}

int bind_to_any_port(int socket, sockaddr_in* address) {
  if (bind_to(socket, address, 0) != 0) {
    dfprintf(3, "socket bind to arbitrary port failed (errno %d)\n", errno);
    errno = EADDRNOTAVAIL;
    return -1;
  }
  dfprintf(5, "socket bound to arbitrary port\n");
  return 0;
}

enum class Try { kBound, kInUse, kFailed };

Try try_port(int socket, sockaddr_in* address, int32_t port) {
  if (bind_to(socket, address, port) == 0) {
    dfprintf(5, "socket bound to port %d\n", port);
    return Try::kBound;
  }
  int error = errno;
  if (error == EADDRINUSE) {
    dfprintf(5, "socket bind failed, port %d, %s\n, retrying...", port, brix_strerror(error));
    return Try::kInUse;
  }
  dfprintf(3, "socket bind failed, port %d, (errno %d) %s\n", port, error, brix_strerror(error));
  return Try::kFailed;
}

// The port number `index` of all the type's ports in a row.
int32_t port_at(const TypeRanges& ranges, int32_t index) {
  const PortRange* range = ranges.first;
  while (index > range->high - range->low) {
    index -= range->high - range->low + 1;
    range = range->next;
  }
  return range->low + index;
}

Try try_at_random(const TypeRanges& ranges, int socket, sockaddr_in* address) {
  int32_t tries =
      ranges.ports > kManyPorts ? std::min(ranges.ports / 4, kMostRandomTries) : kFewRandomTries;
  Try result = Try::kInUse;
  while (result == Try::kInUse && tries-- > 0) {
    result = try_port(socket, address, port_at(ranges, vx_ts_rand() % ranges.ports));
  }
  return result;
}

Try walk(PortRange* range, int socket, sockaddr_in* address) {
  Try result = Try::kInUse;
  for (int32_t left = range->high - range->low + 1; result == Try::kInUse && left > 0; --left) {
    result = try_port(socket, address, range->cursor);
    range->cursor = range->cursor == range->high ? range->low : range->cursor + 1;
  }
  return result;
}

int bind_within(const TypeRanges& ranges, int socket, sockaddr_in* address) {
  Try result = try_at_random(ranges, socket, address);
  for (PortRange* range = ranges.first; result == Try::kInUse && range != nullptr;
       range = range->next) {
    result = walk(range, socket, address);
  }
  if (result == Try::kBound) return 0;
  errno = EADDRNOTAVAIL;
  return -1;
}

}  // namespace

int __brix_bindresvport(int socket, const sockaddr_in* address, int32_t type) {
  sockaddr_in local{};
  local.sin_family = AF_INET;
  if (address != nullptr) local = *address;
  if (local.sin_family != AF_INET || !is_type(type)) {
    errno = is_type(type) ? EPFNOSUPPORT : EINVAL;
    return -1;
  }
  VxMutexLock lock(lock_of_table());
  const TypeRanges& ranges = table[type];
  return ranges.first == nullptr ? bind_to_any_port(socket, &local)
                                 : bind_within(ranges, socket, &local);
}

int rpcport_add_range(uint16_t low, uint16_t high, int32_t type) {
  if (!is_type(type) || low == 0 || low > high) {
    errno = EINVAL;
    return -1;
  }
  auto* added = static_cast<PortRange*>(malloc(sizeof(PortRange)));
  if (added == nullptr) {
    errno = ENOMEM;
    return -1;
  }
  *added = {low, high, low, nullptr};
  dfprintf(8, "Adding range %d-%d to \"%s\" port type.\n", low, high, kTypeNames[type]);
  VxMutexLock lock(lock_of_table());
  PortRange** end = &table[type].first;
  while (*end != nullptr) end = &(*end)->next;
  *end = added;
  table[type].ports += high - low + 1;
  return 0;
}

int32_t rpcport_count(int32_t type) {
  if (!is_type(type)) return 0;
  VxMutexLock lock(lock_of_table());
  return table[type].ports;
}

#include "liblocal/hosts/get_myad.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/system_lock.h"
#include "liblocal/messages/catgets.h"
#include "liblocal/messages/debug.h"
#include "liblocal/messages/errinfo.h"
#include "liblocal/messages/print.h"
#include "liblocal/text/vxprint.h"

namespace {

constexpr int kUsualInterfaces = 32;  // room that is tried while their number is unknown

// The table is never freed, so threads may read it while the process exits.
pthread_mutex_t table_mutex = PTHREAD_MUTEX_INITIALIZER;
sockaddr_in addresses[kMaxLocalAddresses];  // guarded by table_mutex, as is all below
int32_t address_count = 0;
in_addr_t last_match = INADDR_ANY;

void print_system_error(const char* what) {
  vxfprintf(stderr, "%s: %s\n", what, brix_strerror(errno));
}

class DatagramSocket {
 public:
  DatagramSocket() : descriptor_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
  ~DatagramSocket() {
    if (is_open()) close(descriptor_);
  }
  DatagramSocket(const DatagramSocket&) = delete;
  DatagramSocket& operator=(const DatagramSocket&) = delete;

  bool is_open() const { return descriptor_ != -1; }
  int descriptor() const { return descriptor_; }

 private:
  int descriptor_;
};

struct InterfaceList {
  c_unique_ptr<ifreq> records;
  size_t count = 0;

  std::span<const ifreq> all() const { return {records.get(), count}; }
};

// The room to begin with.
int interfaces_to_expect(int socket) {
  ifconf request{};  // without a buffer Linux answers with the bytes that it would need
  if (ioctl(socket, SIOCGIFCONF, &request) < 0 && Debug > 0) {
    debugprintf("set_ifconf_buffer: ioctl(SIOCGIFNUM) failed with %d\n", errno);
  }
  const int count = request.ifc_len / static_cast<int>(sizeof(ifreq));
  return count < 1 ? kUsualInterfaces : std::min(count, kMaxLocalAddresses);
}

// The interface list; empty after a message when it cannot be had. A list that fills
// its room may have been cut, and is asked for again with twice the room.
InterfaceList set_ifconf_buffer(int socket) {
  for (int room = interfaces_to_expect(socket);; room *= 2) {
    const int size = static_cast<int>(sizeof(ifreq)) * room + 1;
    InterfaceList list;
    list.records.reset(static_cast<ifreq*>(calloc(1, static_cast<size_t>(size))));
    if (list.records == nullptr) {
      printerr("%s", vxcatgets(Catd, kRuntimeMessageSet, 0, "set_ifconf_buffer: Out of memory."));
      return {};
    }
    ifconf request{};
    request.ifc_len = size;
    request.ifc_req = list.records.get();
    if (ioctl(socket, SIOCGIFCONF, &request) < 0) {
      if (errno != EINVAL) {
        print_system_error("set_ifconf_buffer: ioctl(SIOCGIFCONF)");
        return {};
      }
      request.ifc_len = 0;
    }
    const bool complete =
        request.ifc_len > 0 && size - request.ifc_len >= static_cast<int>(sizeof(ifreq));
    if (complete || room * 2 > kMaxLocalAddresses) {
      list.count = static_cast<size_t>(request.ifc_len) / sizeof(ifreq);
      return list;
    }
  }
}

// The flags of an interface, from the record that names it; none on failure, which is printed
// where `what` is given.
int flags_of(int socket, const ifreq& record, const char* what = nullptr) {
  ifreq request = record;
  if (ioctl(socket, SIOCGIFFLAGS, &request) == 0) return request.ifr_flags;
  if (what != nullptr) print_system_error(what);
  return 0;
}

sockaddr_in address_of(const ifreq& record) {
  sockaddr_in address;
  static_assert(sizeof address == sizeof record.ifr_addr);
  memcpy(&address, &record.ifr_addr, sizeof address);
  return address;
}

bool matches(const sockaddr_in& slot, int family, const void* address, int32_t length) {
  if (slot.sin_family != family) return false;
  if (family == AF_INET) return memcmp(&slot.sin_addr, address, sizeof slot.sin_addr) == 0;
  const auto& generic = reinterpret_cast<const sockaddr&>(slot);
  if (length < 0 || static_cast<size_t>(length) > sizeof generic.sa_data) return false;
  return memcmp(generic.sa_data, address, static_cast<size_t>(length)) == 0;
}

// Rebuilds the table. Returns its count, or -1 when no socket can be opened.
// REQUIRES: table_mutex is held.
int32_t rebuild_table() {
  DatagramSocket any;
  if (!any.is_open()) return -1;
  InterfaceList list = set_ifconf_buffer(any.descriptor());
  int32_t count = 0;
  for (const ifreq& record : list.all()) {
    if (record.ifr_addr.sa_family == AF_UNSPEC) continue;
    if ((flags_of(any.descriptor(), record) & IFF_UP) == 0) continue;
    addresses[count++] = address_of(record);
  }
  std::fill(addresses + count, addresses + std::max(address_count, count), sockaddr_in{});
  return address_count = count;
}

}  // namespace

int32_t get_myaddrs(sockaddr_in** table) {
  *table = addresses;
  SystemLock lock(&table_mutex);
  return rebuild_table();
}

sockaddr_in read_myaddr(const sockaddr_in* slot) {
  SystemLock lock(&table_mutex);
  return *slot;
}

int is_myaddr(int family, const void* address, int32_t length) {
  in_addr_t asked = INADDR_ANY;
  if (family == AF_INET) memcpy(&asked, address, sizeof asked);
  SystemLock lock(&table_mutex);
  if (family == AF_INET && (asked == INADDR_ANY || asked == last_match)) return 1;
  const int32_t count = rebuild_table();
  for (int32_t i = 0; i < count; ++i) {
    if (!matches(addresses[i], family, address, length)) continue;
    if (family == AF_INET) last_match = asked;
    return 1;
  }
  return 0;
}

void __brix_get_myaddress(sockaddr_in* address) {
  DatagramSocket any;
  if (!any.is_open()) {
    print_system_error("get_myaddress: socket");
    return;
  }
  InterfaceList list = set_ifconf_buffer(any.descriptor());
  if (list.count == 0) {
    printerr("%s", vxcatgets(Catd, kRuntimeMessageSet, 0, "No network interfaces detected!"));
  }
  for (const ifreq& record : list.all()) {
    if (record.ifr_addr.sa_family != AF_INET) continue;
    const int flags = flags_of(any.descriptor(), record, "get_myaddress: flags ioctl");
    if ((flags & IFF_UP) == 0) continue;
    *address = address_of(record);
    if ((flags & IFF_LOOPBACK) == 0) return;
  }
}

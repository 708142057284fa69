#include "liblocal/hosts/get_myad.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <span>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/liblvarp.h"
#include "liblocal/base/vx_once.h"
#include "liblocal/base/xmalloc.h"
#include "liblocal/messages/catgets.h"
#include "liblocal/messages/debug.h"
#include "liblocal/messages/errinfo.h"
#include "liblocal/messages/print.h"
#include "liblocal/text/vxprint.h"

namespace {

constexpr int kUsualInterfaces = 32;  // room that is tried while their number is unknown

vx_once_control table_once;
std::atomic<in_addr_t> last_match = 0;

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

  bool is_open() const { return descriptor_ >= 0; }
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

// The flags of an interface, from the record that names it; -1 with `errno` set on
// failure.
int flags_of(int socket, const ifreq& record) {
  ifreq request = record;
  if (ioctl(socket, SIOCGIFFLAGS, &request) < 0) return -1;
  return static_cast<unsigned short>(request.ifr_flags);
}

sockaddr_in address_of(const ifreq& record) {
  sockaddr_in address;
  static_assert(sizeof address == sizeof record.ifr_addr);
  memcpy(&address, &record.ifr_addr, sizeof address);
  return address;
}

// Threads rebuild the table and read it at the same time. A slot is read and written as
// two words, of which the first holds family, port and IPv4 address.
using SlotWord [[gnu::may_alias]] = uint64_t;
constexpr size_t kSlotWords = sizeof(sockaddr_in) / sizeof(SlotWord);

void store_slot(sockaddr_in* slot, const sockaddr_in& address) {
  uint64_t words[kSlotWords] = {};
  memcpy(words, &address, sizeof words);
  auto* shared = reinterpret_cast<SlotWord*>(slot);
  for (size_t i = 0; i < kSlotWords; ++i) {
    // Only what changes, so that readers of the table see no writing while nothing does.
    if (__atomic_load_n(&shared[i], __ATOMIC_RELAXED) != words[i]) {
      __atomic_store_n(&shared[i], words[i], __ATOMIC_RELAXED);
    }
  }
}

void allocate_table() {
  liblocal_p_varp* block = get_liblocal_p_varp();
  block->local_addresses =
      static_cast<sockaddr_in*>(xcalloc(kMaxLocalAddresses, sizeof(sockaddr_in)));
}

bool matches(const sockaddr_in& slot, int family, const void* address, int32_t length) {
  if (slot.sin_family != family) return false;
  if (family == AF_INET) return memcmp(&slot.sin_addr, address, sizeof slot.sin_addr) == 0;
  const auto& generic = reinterpret_cast<const sockaddr&>(slot);
  if (length < 0 || static_cast<size_t>(length) > sizeof generic.sa_data) return false;
  return memcmp(generic.sa_data, address, static_cast<size_t>(length)) == 0;
}

}  // namespace

int32_t get_myaddrs(sockaddr_in** table) {
  *table = nullptr;
  liblocal_p_varp* block = get_liblocal_p_varp();
  if (block == nullptr) return -1;
  vx_once(&table_once, allocate_table);
  *table = block->local_addresses;

  DatagramSocket any;
  if (!any.is_open()) return -1;
  InterfaceList list = set_ifconf_buffer(any.descriptor());
  int32_t count = 0;
  for (const ifreq& record : list.all()) {
    if (record.ifr_addr.sa_family == AF_UNSPEC) continue;
    int flags = flags_of(any.descriptor(), record);
    if (flags < 0 || (flags & IFF_UP) == 0) continue;
    store_slot(*table + count++, address_of(record));
  }
  int32_t before = __atomic_exchange_n(&block->local_address_count, count, __ATOMIC_RELAXED);
  for (int32_t i = count; i < before; ++i) store_slot(*table + i, {});
  return count;
}

sockaddr_in read_myaddr(const sockaddr_in* slot) {
  uint64_t words[kSlotWords] = {};
  auto* shared = reinterpret_cast<const SlotWord*>(slot);
  for (size_t i = 0; i < kSlotWords; ++i) words[i] = __atomic_load_n(&shared[i], __ATOMIC_RELAXED);
  sockaddr_in address;
  memcpy(&address, words, sizeof address);
  return address;
}

int is_myaddr(int family, const void* address, int32_t length) {
  in_addr_t asked = 0;
  if (family == AF_INET) {
    memcpy(&asked, address, sizeof asked);
    if (asked == last_match) return 1;
  }
  sockaddr_in* table = nullptr;
  int32_t count = get_myaddrs(&table);
  for (int32_t i = 0; i < count; ++i) {
    if (!matches(read_myaddr(table + i), family, address, length)) continue;
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
    int flags = flags_of(any.descriptor(), record);
    if (flags < 0) print_system_error("get_myaddress: flags ioctl");
    if (flags < 0 || (flags & IFF_UP) == 0) continue;
    *address = address_of(record);
    if ((flags & IFF_LOOPBACK) == 0) return;
  }
}

#include "tests/fakes.h"

#include <arpa/inet.h>
#include <langinfo.h>
#include <net/if.h>
#include <netdb.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string>

#include "liblocal/messages/catgets.h"

namespace {

std::atomic<int> grants_left = INT_MAX, refusals_left = 0;
std::atomic<long> held = 0;
std::atomic<int> numbering = getenv("NUMBERED_TEXTS") != nullptr ? 1 : 0;

template <typename T>
T* hold(T* memory) {
  if (memory != nullptr) ++held;
  return memory;
}

bool grant() {
  if (grants_left == INT_MAX || --grants_left >= 0 || --refusals_left < 0) return true;
  errno = ENOMEM;
  return false;
}

bool is_refused(fakes::Refusal& calls) {
  if (calls.left <= 0) return false;
  --calls.left;
  errno = calls.error;
  return true;
}

// The record that ioctl gives of an interface. Its flags are its name.
ifreq record_of(const fakes::Interface& interface) {
  ifreq record{};
  std::to_string(interface.flags).copy(record.ifr_name, sizeof record.ifr_name);
  const sockaddr_in address = {
      interface.family, 0, {inet_addr(interface.address)}, {0, 0, 0, 0, 0, 0, 0, 9}};
  memcpy(&record.ifr_addr, &address, sizeof address);
  return record;
}

}  // namespace

namespace fakes {

FailingMalloc::FailingMalloc(int granted, int refusals) {
  refusals_left = refusals;
  grants_left = granted;
}
FailingMalloc::~FailingMalloc() { grants_left = INT_MAX; }
bool FailingMalloc::failed() const { return grants_left < 0; }
long pieces_held() { return held; }

NumberedTexts::NumberedTexts() { ++numbering; }
NumberedTexts::~NumberedTexts() { --numbering; }

}  // namespace fakes

using namespace fakes;

// The names that the linker's --wrap gives to what is called and to the real one.
extern "C" {
decltype(malloc) __real_malloc;
decltype(calloc) __real_calloc;
decltype(realloc) __real_realloc;
decltype(strdup) __real_strdup;
decltype(free) __real_free;
decltype(mmap) __real_mmap;
decltype(munmap) __real_munmap;
decltype(connect) __real_connect;
decltype(readv) __real_readv;
decltype(recv) __real_recv;
decltype(sendmsg) __real_sendmsg;
decltype(ppoll) __real_ppoll;
decltype(select) __real_select;
decltype(nanosleep) __real_nanosleep;
decltype(time) __real_time;
decltype(gethostbyname_r) __real_gethostbyname_r;
decltype(ioctl) __real_ioctl;
decltype(nl_langinfo) __real_nl_langinfo;
decltype(vxcatgets) __real__Z9vxcatgetsliiPKc;

void* __wrap_malloc(size_t size) { return grant() ? hold(__real_malloc(size)) : nullptr; }
void* __wrap_calloc(size_t count, size_t size) {
  return grant() ? hold(__real_calloc(count, size)) : nullptr;
}
void* __wrap_realloc(void* memory, size_t size) {
  if (!grant()) return nullptr;
  void* moved = __real_realloc(memory, size);
  return memory == nullptr ? hold(moved) : moved;
}
char* __wrap_strdup(const char* text) { return grant() ? hold(__real_strdup(text)) : nullptr; }
void __wrap_free(void* memory) {
  if (memory != nullptr) --held;
  __real_free(memory);
}

void* __wrap_mmap(void* at, size_t size, int access, int flags, int file, off_t offset) {
  return grant() ? hold(__real_mmap(at, size, access, flags, file, offset)) : MAP_FAILED;
}
int __wrap_munmap(void* memory, size_t size) {
  --held;
  return __real_munmap(memory, size);
}

int __wrap_connect(int socket, const sockaddr* address, socklen_t length) {
  if (!is_refused(connects)) return __real_connect(socket, address, length);
  if (errno == EINTR) {
    __real_connect(socket, address, length);
    errno = EINTR;
  }
  return -1;
}

ssize_t __wrap_readv(int descriptor, const iovec* buffers, int count) {
  return is_refused(reads) ? -1 : __real_readv(descriptor, buffers, count);
}
ssize_t __wrap_recv(int socket, void* buffer, size_t size, int flags) {
  return is_refused(reads) ? -1 : __real_recv(socket, buffer, size, flags);
}
ssize_t __wrap_sendmsg(int socket, const msghdr* message, int flags) {
  return is_refused(writes) ? -1 : __real_sendmsg(socket, message, flags);
}

int __wrap_ppoll(pollfd* polled, nfds_t count, const timespec* timeout, const sigset_t* mask) {
  if (is_refused(waits)) return waits.error == 0 ? 0 : -1;
  return __real_ppoll(polled, count, timeout, mask);
}
int __wrap_select(int count, fd_set* in, fd_set* out, fd_set* exceptional, timeval* timeout) {
  if (is_refused(waits)) return waits.error == 0 ? 0 : -1;
  return __real_select(count, in, out, exceptional, timeout);
}

int __wrap_nanosleep(const timespec* pause, timespec* left) {
  if (sleeps == nullptr) return __real_nanosleep(pause, left);
  sleeps->push_back(pause->tv_sec * 1000 + pause->tv_nsec / 1'000'000);
  return 0;
}
time_t __wrap_time(time_t* result) { return now != 0 ? now.load() : __real_time(result); }

int __wrap_gethostbyname_r(const char* name, hostent* entry, char* text, size_t size,
                           hostent** result, int* error) {
  ++names_asked;
  if (resolver_is_down) return EAGAIN;
  return __real_gethostbyname_r(name, entry, text, size, result, error);
}

int __wrap_ioctl(int descriptor, unsigned long request, void* argument) {
  const std::vector<Interface>* given = interfaces;
  if (given == nullptr) return __real_ioctl(descriptor, request, argument);
  if (request == SIOCGIFFLAGS) {
    auto* record = static_cast<ifreq*>(argument);
    const int flags = atoi(record->ifr_name);
    record->ifr_flags = static_cast<int16_t>(flags);
    errno = -flags;
    return flags < 0 ? -1 : 0;
  }
  auto* list = static_cast<ifconf*>(argument);
  auto count = static_cast<int>(given->size());
  if (list->ifc_buf != nullptr) {
    errno = listing_error;
    if (errno != 0) return -1;
    count = std::min(count, list->ifc_len / static_cast<int>(sizeof(ifreq)));
    std::transform(given->begin(), given->begin() + count, list->ifc_req, record_of);
  }
  list->ifc_len = count * static_cast<int>(sizeof(ifreq));
  return 0;
}

char* __wrap_nl_langinfo(nl_item item) {
  const char* name = item == CODESET ? codeset.load() : nullptr;
  return name != nullptr ? const_cast<char*>(name) : __real_nl_langinfo(item);
}

const char* __wrap__Z9vxcatgetsliiPKc(int64_t catalog, int32_t set, int32_t number,
                                      const char* text) {
  if (numbering == 0 || set == 17) return __real__Z9vxcatgetsliiPKc(catalog, set, number, text);
  static std::mutex mutex;
  static std::set<std::string> kept;
  const std::lock_guard<std::mutex> lock(mutex);
  const std::string numbers = "[" + std::to_string(set) + "." + std::to_string(number) + "] ";
  return kept.insert(numbers + text).first->c_str();
}
}

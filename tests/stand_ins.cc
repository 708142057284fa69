#include "tests/stand_ins.h"

#include <arpa/inet.h>
#include <langinfo.h>
#include <netdb.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sstream>

namespace stand_ins {

std::atomic<int64_t> now;
std::atomic<int> names_asked;
std::atomic<bool> resolver_is_down, no_push_back;
std::atomic<const char*> codeset;
std::atomic<const std::vector<ifreq>*> interfaces;
std::atomic<int> counting_error, listing_error, room_asked;

std::vector<ifreq> made_up(const std::string& words) {
  std::vector<ifreq> all;
  std::istringstream text(words);
  std::string flags, address;
  for (sa_family_t family = 0; text >> flags >> address >> family;) {
    ifreq& record = all.emplace_back();
    flags.copy(record.ifr_name, sizeof record.ifr_name);
    const sockaddr_in given = {family, 0, {inet_addr(address.c_str())}, {0, 0, 0, 0, 0, 0, 0, 9}};
    memcpy(&record.ifr_addr, &given, sizeof given);
  }
  return all;
}

}  // namespace stand_ins

using namespace stand_ins;

// The names that the linker's --wrap gives to what is called and to the real one.
extern "C" {
time_t __real_time(time_t* result);
int __real_gethostbyname_r(const char* name, hostent* entry, char* text, size_t size,
                           hostent** result, int* error);
int __real_ioctl(int descriptor, unsigned long request, ...);
int __real_ungetc(int byte, FILE* stream);
char* __real_nl_langinfo(nl_item item);

char* __wrap_nl_langinfo(nl_item item) {
  const char* name = item == CODESET ? codeset.load() : nullptr;
  return name != nullptr ? const_cast<char*>(name) : __real_nl_langinfo(item);
}

int __wrap_ungetc(int byte, FILE* stream) {
  return no_push_back ? EOF : __real_ungetc(byte, stream);
}

time_t __wrap_time(time_t* result) { return now != 0 ? now.load() : __real_time(result); }

int __wrap_gethostbyname_r(const char* name, hostent* entry, char* text, size_t size,
                           hostent** result, int* error) {
  ++names_asked;
  if (resolver_is_down) return EAGAIN;
  return __real_gethostbyname_r(name, entry, text, size, result, error);
}

int __wrap_ioctl(int descriptor, unsigned long request, void* argument) {
  const std::vector<ifreq>* there = interfaces;
  if (there == nullptr) return __real_ioctl(descriptor, request, argument);
  if (request == SIOCGIFFLAGS) {
    const int flags = atoi(static_cast<ifreq*>(argument)->ifr_name);
    static_cast<ifreq*>(argument)->ifr_flags = static_cast<int16_t>(flags);
    errno = -flags;
    return flags < 0 ? -1 : 0;
  }
  auto* list = static_cast<ifconf*>(argument);
  const bool counting = list->ifc_buf == nullptr;
  errno = counting ? counting_error : listing_error;
  if (errno != 0) return -1;
  size_t count = there->size();
  if (!counting) {
    room_asked = list->ifc_len;
    count = std::min(count, static_cast<size_t>(list->ifc_len) / sizeof(ifreq));
    std::copy_n(there->begin(), count, list->ifc_req);
  }
  list->ifc_len = static_cast<int>(count * sizeof(ifreq));
  return 0;
}
}

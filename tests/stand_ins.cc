#include "tests/stand_ins.h"

#include <netdb.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace stand_ins {

std::atomic<int64_t> now;
std::atomic<int> names_asked;
std::atomic<bool> resolver_is_down;
std::atomic<unsigned long> refused_request;
std::atomic<int> refusal;
std::atomic<bool> no_push_back;

}  // namespace stand_ins

using namespace stand_ins;

// The names that the linker's --wrap gives to what is called and to the real one.
extern "C" {
time_t __real_time(time_t* result);
int __real_gethostbyname_r(const char* name, hostent* entry, char* text, size_t size,
                           hostent** result, int* error);
int __real_gethostbyaddr_r(const void* address, socklen_t length, int type, hostent* entry,
                           char* text, size_t size, hostent** result, int* error);
int __real_ioctl(int descriptor, unsigned long request, ...);
int __real_ungetc(int byte, FILE* stream);

int __wrap_ungetc(int byte, FILE* stream) {
  return no_push_back ? EOF : __real_ungetc(byte, stream);
}

time_t __wrap_time(time_t* result) {
  time_t answer = now != 0 ? now.load() : __real_time(nullptr);
  if (result != nullptr) *result = answer;
  return answer;
}

int __wrap_gethostbyname_r(const char* name, hostent* entry, char* text, size_t size,
                           hostent** result, int* error) {
  ++names_asked;
  *result = nullptr;
  if (resolver_is_down) return EAGAIN;
  return __real_gethostbyname_r(name, entry, text, size, result, error);
}

int __wrap_gethostbyaddr_r(const void* address, socklen_t length, int type, hostent* entry,
                           char* text, size_t size, hostent** result, int* error) {
  *result = nullptr;
  if (resolver_is_down) return EAGAIN;
  return __real_gethostbyaddr_r(address, length, type, entry, text, size, result, error);
}

int __wrap_ioctl(int descriptor, unsigned long request, ...) {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (request == refused_request) {
    errno = refusal;
    return -1;
  }
  return __real_ioctl(descriptor, request, argument);
}
}

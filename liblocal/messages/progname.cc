#include "liblocal/messages/progname.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "liblocal/base/vx_atexit.h"
#include "liblocal/base/vx_mutex.h"
#include "liblocal/text/ascii.h"
#include "liblocal/text/vxpath.h"

namespace {

// Written under the mutex of the program's name, each name in the place of the last but
// one: who may not wait for the mutex copies a name that is not being written.
std::atomic<char> names[2][kPathComponentSize];
std::atomic<uint64_t> recorded;  // names so far; the last one is names[recorded % 2]

}  // namespace

void vx_set_progname(const char* path) {
  if (path == nullptr || *path == '\0') return;
  char name[kPathComponentSize];
  if (vx_path_basename(path, name, sizeof name) != 0) return;
  *strchrnul(name, '.') = '\0';
  lower_ascii(name);

  VxMutexLock lock(_vx_progname_mutex());
  std::copy_n(name, strlen(name) + 1, names[(recorded + 1) % 2]);
  ++recorded;
}

bool _vx_peek_progname(char* buffer, size_t size) {
  uint64_t seen = 0;
  do {
    seen = recorded;
    if (seen == 0) return false;
    const auto& name = names[seen % 2];
    size_t length = 0;
    while (length + 1 < size && (buffer[length] = name[length]) != '\0') ++length;
    if (size != 0) buffer[length] = '\0';
  } while (recorded != seen);
  return true;
}

char* vx_get_progname(char* buffer, size_t size) {
  VxMutexLock lock(_vx_progname_mutex());
  if (!_vx_peek_progname(buffer, size)) {
    snprintf(buffer, size, "(pid %d)", static_cast<int>(getpid()));
  }
  return buffer;
}

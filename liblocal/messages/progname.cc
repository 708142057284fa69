#include "liblocal/messages/progname.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "liblocal/base/vx_atexit.h"
#include "liblocal/base/vx_mutex.h"
#include "liblocal/text/ascii.h"
#include "liblocal/text/text_view.h"
#include "liblocal/text/vxpath.h"

namespace {

// Written under the mutex of the program's name. A signal handler cannot wait for that. It
// reads the recorded name, while a new one is written to the other place.
char names[2][kPathComponentSize];
std::atomic<const char*> recorded;  // one of `names`, or null

}  // namespace

void vx_set_progname(const char* path) {
  if (path == nullptr || *path == '\0') return;
  char name[kPathComponentSize];
  if (vx_path_basename(path, name, sizeof name) != 0) return;
  *strchrnul(name, '.') = '\0';
  lower_ascii(name);

  VxMutexLock lock(_vx_progname_mutex());
  char* free_place = recorded == names[0] ? names[1] : names[0];
  text_copy_cut(name, free_place, kPathComponentSize);
  recorded = free_place;
}

bool _vx_peek_progname(char* buffer, size_t size) {
  const char* name = recorded;
  if (name == nullptr) return false;
  text_copy_cut(name, buffer, size);
  return true;
}

char* vx_get_progname(char* buffer, size_t size) {
  VxMutexLock lock(_vx_progname_mutex());
  if (!_vx_peek_progname(buffer, size)) {
    snprintf(buffer, size, "(pid %d)", static_cast<int>(getpid()));
  }
  return buffer;
}

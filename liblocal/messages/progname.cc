#include "liblocal/messages/progname.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "liblocal/text/ascii.h"
#include "liblocal/text/text_view.h"
#include "liblocal/text/vxpath.h"
#include "liblocal/threads/vx_atexit.h"
#include "liblocal/threads/vx_mutex.h"

namespace {

// Both are guarded by the mutex of the program's name.
char program_name[kPathComponentSize];
bool recorded = false;

}  // namespace

void vx_set_progname(const char* path) {
  if (path == nullptr || *path == '\0') return;
  char name[kPathComponentSize];
  if (vx_path_basename(path, name, sizeof name) != 0) return;
  name[strcspn(name, ".")] = '\0';
  for (char* c = name; *c != '\0'; ++c) *c = ascii_lower(*c);

  VxMutexLock lock(_vx_progname_mutex());
  memcpy(program_name, name, strlen(name) + 1);
  recorded = true;
}

char* vx_get_progname(char* buffer, size_t size) {
  VxMutexLock lock(_vx_progname_mutex());
  if (recorded) {
    text_copy_cut(program_name, buffer, size);
  } else {
    snprintf(buffer, size, "(pid %d)", static_cast<int>(getpid()));
  }
  return buffer;
}

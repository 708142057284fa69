#include "liblocal/vxinit.h"

#include <getopt.h>
#include <unistd.h>

#include <cstdio>
#include <string_view>

#include "liblocal/dbgsignl.h"
#include "liblocal/print.h"
#include "liblocal/regevent.h"
#include "liblocal/varp.h"
#include "liblocal/vx_thread.h"

namespace {

constexpr size_t kNameLimit = 1024;  // bytes of a program name, terminator included

bool initialised = false;
char program_name[kNameLimit];  // empty while none is recorded

// A set-user-id program runs with its caller's rights and keeps a real id of
// root, from which it can go back. Failure leaves the ids as they were.
void give_up_privileges() {
  uid_t real = getuid();
  if (real != geteuid() && setreuid(0, real) != 0) return;
}

// ASCII only: a name must not depend on the locale.
char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

}  // namespace

void _vxinit(const char* name, int /*argc*/, char** argv) {
  if (!initialised) {
    regevent_setup();
    _vx_thr_libinit();
    varp_set_error_printer([](const char* text) { printerr("%s", text); });
    give_up_privileges();
    snprintf(Dbgcmdpath, sizeof Dbgcmdpath, "/%s/tmp/vxdbg.tmp", name != nullptr ? name : "");
  }
  opterr = 0;
  initialised = true;
  if (argv != nullptr && argv[0] != nullptr) debug_check(argv[0]);
}

int vxinit_done() { return initialised ? 1 : 0; }

void vx_set_progname(const char* path) {
  if (path == nullptr || *path == '\0') return;
  std::string_view name(path);
  while (name.size() > 1 && name.back() == '/') name.remove_suffix(1);
  if (size_t slash = name.rfind('/'); slash != name.npos) name.remove_prefix(slash + 1);
  size_t length = 0;
  for (char c : name) {
    if (c == '.' || length == kNameLimit - 1) break;
    program_name[length++] = lower(c);
  }
  program_name[length] = '\0';
}

char* vx_get_progname(char* buffer, size_t size) {
  if (program_name[0] != '\0') {
    snprintf(buffer, size, "%s", program_name);
  } else {
    snprintf(buffer, size, "(pid %d)", static_cast<int>(getpid()));
  }
  return buffer;
}

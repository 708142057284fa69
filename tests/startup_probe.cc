// startup_probe NAME [ARGUMENT...]: a program that starts as the application NAME
// ("-" for none) and shows what the start-up made of it; and how it goes back and
// forth between the rights of its start and its user's.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "liblocal/startup/dbgsignl.h"
#include "liblocal/startup/vxdirs.h"
#include "liblocal/startup/vxids.h"
#include "liblocal/startup/vxinit.h"

// The leak checker cannot look into a set-user-id program, which may not even read
// the options of its environment.
extern "C" const char* __asan_default_options() { return "detect_leaks=0"; }

namespace {

void show(const char* what, const char* text) {
  printf("%s=%s\n", what, text != nullptr ? text : "(none)");
}

void show_ids(const char* when) {
  uid_t real = 0, effective = 0, saved = 0;
  getresuid(&real, &effective, &saved);
  printf("%s=%u,%u,%u\n", when, real, effective, saved);
}

}  // namespace

int main(int argc, char** argv) {
  const char* name = argc > 1 && strcmp(argv[1], "-") != 0 ? argv[1] : nullptr;
  vx_set_progname(argv[0]);
  printf("before=%d\n", vxinit_done());
  _vxinit(name, argc, argv);
  printf("after=%d\n", vxinit_done());
  show("installdir", vx_get_installdir());
  show("appdir", find_appdir("other"));
  show("bindir", vx_get_bindir());
  show("tmpdir", vx_get_tmpdir());
  show("moddir", vx_get_moddir());
  show("securedir", vx_get_securedir());
  show("command", Dbgcmdpath);
  show_ids("started");
  set_privileged();
  vxinit(name);  // once more, which changes nothing
  show_ids("privileged");
  set_vxinit_uid_flag(0);
  set_nonprivileged();
  show_ids("kept");
  set_vxinit_uid_flag(1);
  set_nonprivileged();
  show_ids("dropped");
  uid_t real = 0, effective = 0;
  get_saved_uids(&real, &effective);
  printf("saved=%u,%u\n", real, effective);
  gid_t group = 0, effective_group = 0;
  get_saved_gids(&group, &effective_group);
  printf("groups=%u,%u\n", group, effective_group);
  for (int i = 2; i < argc; ++i) show("argument", argv[i]);
  return 0;
}

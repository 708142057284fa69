#include "liblocal/vxinit.h"

#include <getopt.h>

#include <cstdio>

#include "liblocal/dbgsignl.h"
#include "liblocal/print.h"
#include "liblocal/regevent.h"
#include "liblocal/varp.h"
#include "liblocal/vx_thread.h"
#include "liblocal/vxids.h"

void _vxinit(const char* name, int /*argc*/, char** argv) {
  if (vxinit_done() == 0) {
    regevent_setup();
    _vx_thr_libinit();
    varp_set_error_printer([](const char* text) { printerr("%s", text); });
    set_nonprivileged();
    snprintf(Dbgcmdpath, sizeof Dbgcmdpath, "/%s/tmp/vxdbg.tmp", name != nullptr ? name : "");
  }
  opterr = 0;
  _vx_set_initialised();
  if (argv != nullptr && argv[0] != nullptr) debug_check(argv[0]);
}

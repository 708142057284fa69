#include "liblocal/startup/vxinit.h"

#include <getopt.h>

#include <cstdlib>
#include <cstring>

#include "liblocal/base/vx_thread.h"
#include "liblocal/messages/locales.h"
#include "liblocal/startup/dbgsignl.h"
#include "liblocal/startup/regevent.h"
#include "liblocal/startup/vxdirs.h"
#include "liblocal/startup/vxenv.h"
#include "liblocal/startup/vxids.h"
#include "liblocal/text/ascii.h"
#include "liblocal/text/text_view.h"
#include "liblocal/text/utf8_convert.h"

namespace {

constexpr size_t kUtf8Growth = 6;  // bytes of UTF-8 for one byte

void name_debug_command_file(const char* name) {
  bool with_programs = name != nullptr && strcmp(name, "qmo") == 0;
  const char* directory = with_programs ? vx_get_bindir() : vx_get_tmpdir();
  // As the formatter writes a null text.
  text_copy_cut(directory != nullptr ? directory : "null", Dbgcmdpath, sizeof Dbgcmdpath);
  const size_t end = strlen(Dbgcmdpath);
  text_copy_cut("/vxdbg.tmp", Dbgcmdpath + end, sizeof Dbgcmdpath - end);
}

// What the first call does. A set-user-id root program runs with root's rights up to
// set_nonprivileged, so nothing in here opens a file that the caller names. The rights of
// another owner and those of a set-group-id start are never given up (vxids.h).
void set_up_process(const char* name, char** argv) {
  find_appdir(name);
  init_locales(name, "");
  regevent_setup();
  _vx_thr_libinit();
  if (argv != nullptr) vx_find_installdir(argv[0]);
  get_saved_uids(nullptr, nullptr);
  _vx_print_uids(vxgetenv("KIV_PRINT_UIDS") != nullptr);
  set_nonprivileged();
  name_debug_command_file(name);
}

void convert_arguments(int argc, char** argv) {
  if (argv == nullptr || vxgetenv("KIV_MAST") != nullptr) return;
  for (; argc > 0 && *argv != nullptr; --argc, ++argv) {
    if (is_ascii_text(*argv)) continue;
    size_t size = kUtf8Growth * strlen(*argv) + 1;
    char* converted = static_cast<char*>(malloc(size));
    if (converted == nullptr) return;
    utf8_mbs(converted, *argv, size);
    *argv = converted;
  }
}

}  // namespace

void _vxinit(const char* name, int argc, char** argv) {
  if (vxinit_done() == 0) set_up_process(name, argv);
  opterr = 0;
  convert_arguments(argc, argv);
  _vx_set_initialised();
  if (argv != nullptr && argv[0] != nullptr) debug_check(argv[0]);
}

void vxinit(const char* name) { _vxinit(name, 0, nullptr); }

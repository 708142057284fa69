#include "rpc/xdr/io_switches.h"

#include <sys/stat.h>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/vx_once.h"
#include "liblocal/startup/vxenv.h"
#include "liblocal/text/utf8_files.h"
#include "liblocal/text/vxpath.h"

namespace {

constexpr char kDefaultDirectory[] = "/kiv/debug";

rpc_io_switches switches;

// Looks with the effective rights, unlike access.
bool is_there(const char* directory, const char* name) {
  c_unique_ptr<char> path(path_concat(directory, name));
  struct stat status;
  return utf8_lstat(path.get(), &status) == 0;
}

void look_up() {
  const char* directory = vxgetenv("KIV_DEBUG_DIR");
  if (directory == nullptr) directory = kDefaultDirectory;
  switches.gather_writes = !is_there(directory, "nowritev");
  switches.scatter_reads = !is_there(directory, "noreadv");
  switches.delayed_ends = !is_there(directory, "nodelayeor");
}

}  // namespace

const rpc_io_switches& rpc_get_io_switches() {
  static vx_once_control once;
  vx_once(&once, look_up);
  return switches;
}

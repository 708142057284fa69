#include "liblocal/startup/vxdirs.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "liblocal/base/vx_mutex.h"
#include "liblocal/base/xmalloc.h"
#include "liblocal/startup/find_origin.h"
#include "liblocal/text/vxpath.h"

namespace {

// Written under directory_mutex. The atomic pointers are set once and then read without it.
std::atomic<vx_mutex*> directory_mutex;
char* argv0_copy = nullptr;
std::atomic<const char*> installdir;
bool appdir_asked = false;   // so later names do not count
bool is_installdir = false;  // the application directory
const char* default_appdir = nullptr;
const char* chosen_appdir = nullptr;
std::atomic<const char*> securedir;

vx_mutex* mutex() { return vx_mutex_required(&directory_mutex); }

// REQUIRES: directory_mutex is held.
const char* appdir(const char* name) {
  if (!appdir_asked && name != nullptr) {
    default_appdir = path_concat("/", name);
    is_installdir = strcmp(name, "tarn") == 0 || strcmp(name, "qmo") == 0;
  }
  appdir_asked = true;
  if (chosen_appdir == nullptr && is_installdir) chosen_appdir = xstrdup(installdir);
  return chosen_appdir != nullptr ? chosen_appdir : default_appdir;
}

struct Directory {
  const char* name;
  std::atomic<const char*> path = nullptr;
};

// The path of `directory`, made by the first call that knows its base.
const char* path_of(Directory* directory, bool where_installed = false) {
  if (const char* path = directory->path; path != nullptr) return path;
  VxMutexLock lock(mutex());
  if (directory->path == nullptr) {
    const char* base = where_installed ? installdir.load() : appdir(nullptr);
    if (base != nullptr) directory->path = path_concat(base, directory->name);
  }
  return directory->path;
}

Directory bin{"bin"}, applogs{"applogs"}, cores{"cores"}, debug{"debug"}, etc{"etc"}, gls{"gls"},
    index_{"index"}, lib{"lib"}, logs{"logs"}, mm{"mm"}, mod{"mod"}, rap{"rap"}, res{"res"},
    tmp{"tmp"};

}  // namespace

void vx_set_argv0(const char* argv0) {
  char* copy = xstrdup(argv0);
  VxMutexLock lock(mutex());
  free(argv0_copy);
  argv0_copy = copy;
}

const char* vx_get_argv0() {
  VxMutexLock lock(mutex());
  return argv0_copy;
}

const char* vx_find_installdir(const char* argv0) {
  if (argv0 == nullptr) return nullptr;
  vx_set_argv0(argv0);
  if (installdir != nullptr) return installdir;
  const char* origin = find_origin(argv0);
  if (origin == nullptr) return nullptr;
  char directory[kPathComponentSize];
  vx_path_dirname(origin, directory, sizeof directory);
  VxMutexLock lock(mutex());
  if (installdir == nullptr) installdir = xstrdup(directory);
  return installdir;
}

const char* vx_get_installdir() { return installdir; }

const char* find_appdir(const char* name) {
  VxMutexLock lock(mutex());
  return appdir(name);
}

const char* vx_get_bindir() { return path_of(&bin, true); }
const char* vx_get_applogsdir() { return path_of(&applogs); }
const char* vx_get_coresdir() { return path_of(&cores); }
const char* vx_get_debugdir() { return path_of(&debug); }
const char* vx_get_etcdir() { return path_of(&etc); }
const char* vx_get_glsdir() { return path_of(&gls); }
const char* vx_get_indexdir() { return path_of(&index_); }
const char* vx_get_libdir() { return path_of(&lib); }
const char* vx_get_logsdir() { return path_of(&logs); }
const char* vx_get_mmdir() { return path_of(&mm); }
const char* vx_get_moddir() { return path_of(&mod); }
const char* vx_get_rapdir() { return path_of(&rap); }
const char* vx_get_resdir() { return path_of(&res); }
const char* vx_get_tmpdir() { return path_of(&tmp); }

const char* vx_get_securedir() {
  if (const char* path = securedir; path != nullptr) return path;
  const char* tmpdir = vx_get_tmpdir();
  VxMutexLock lock(mutex());
  if (securedir == nullptr) securedir = path_concat(tmpdir, "sec");
  return securedir;
}

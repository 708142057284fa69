#include "liblocal/startup/vxdirs.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "liblocal/startup/find_origin.h"
#include "liblocal/text/vxpath.h"
#include "liblocal/threads/vx_mutex.h"
#include "liblocal/threads/xmalloc.h"

namespace {

// A directory of the cache: its name and, once asked for, its path, which is read
// without a lock.
struct Directory {
  const char* name;
  std::atomic<const char*> path;
};

// The standard directories; the order is that of `directories`.
enum Standard {
  kBin,
  kApplogs,
  kCores,
  kDebug,
  kEtc,
  kGls,
  kIndex,
  kLib,
  kLogs,
  kMm,
  kMod,
  kRap,
  kRes,
  kTmp,
};

Directory directories[] = {{"bin", nullptr},   {"applogs", nullptr}, {"cores", nullptr},
                           {"debug", nullptr}, {"etc", nullptr},     {"gls", nullptr},
                           {"index", nullptr}, {"lib", nullptr},     {"logs", nullptr},
                           {"mm", nullptr},    {"mod", nullptr},     {"rap", nullptr},
                           {"res", nullptr},   {"tmp", nullptr}};

// What follows is written under directory_mutex. The atomic pointers are set once
// and then read without it.
std::atomic<vx_mutex*> directory_mutex;
char* argv0_copy = nullptr;
std::atomic<const char*> installdir;
const char* application = nullptr;
const char* default_appdir = nullptr;
const char* chosen_appdir = nullptr;
std::atomic<char*> securedir;  // set without the mutex

vx_mutex* mutex() {
  vx_mutex* made = vx_mutex_made_once(&directory_mutex);
  if (made == nullptr) raise(SIGTERM);
  return made;
}

bool lives_where_installed(const char* name) {
  return strcmp(name, "tarn") == 0 || strcmp(name, "qmo") == 0;
}

// REQUIRES: directory_mutex is held.
const char* appdir() {
  if (chosen_appdir != nullptr || application == nullptr) return chosen_appdir;
  const char* installed = installdir;
  if (installed == nullptr || !lives_where_installed(application)) return default_appdir;
  chosen_appdir = xstrdup(installed);
  return chosen_appdir;
}

// The path of a standard directory, made by the first call that knows its base.
const char* standard(Standard which) {
  Directory& directory = directories[which];
  if (const char* path = directory.path; path != nullptr) return path;
  VxMutexLock lock(mutex());
  if (directory.path == nullptr) {
    const char* base = which == kBin ? installdir.load() : appdir();
    if (base != nullptr) directory.path = path_concat(base, directory.name);
  }
  return directory.path;
}

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
  // Of a longer origin the path operations would see the beginning only.
  if (origin == nullptr || strlen(origin) >= kPathComponentSize) return nullptr;
  char directory[kPathComponentSize];
  if (vx_path_dirname(origin, directory, sizeof directory) != 0) return nullptr;
  VxMutexLock lock(mutex());
  if (installdir == nullptr) installdir = xstrdup(directory);
  return installdir;
}

const char* vx_get_installdir() { return installdir; }

const char* find_appdir(const char* name) {
  VxMutexLock lock(mutex());
  if (application == nullptr && name != nullptr) {
    application = xstrdup(name);
    default_appdir = path_concat("/", name);
  }
  return appdir();
}

const char* vx_get_bindir() { return standard(kBin); }
const char* vx_get_applogsdir() { return standard(kApplogs); }
const char* vx_get_coresdir() { return standard(kCores); }
const char* vx_get_debugdir() { return standard(kDebug); }
const char* vx_get_etcdir() { return standard(kEtc); }
const char* vx_get_glsdir() { return standard(kGls); }
const char* vx_get_indexdir() { return standard(kIndex); }
const char* vx_get_libdir() { return standard(kLib); }
const char* vx_get_logsdir() { return standard(kLogs); }
const char* vx_get_mmdir() { return standard(kMm); }
const char* vx_get_moddir() { return standard(kMod); }
const char* vx_get_rapdir() { return standard(kRap); }
const char* vx_get_resdir() { return standard(kRes); }
const char* vx_get_tmpdir() { return standard(kTmp); }

const char* vx_get_securedir() {
  if (const char* path = securedir; path != nullptr) return path;
  const char* base = vx_get_tmpdir();
  if (base == nullptr) return nullptr;
  char* path = path_concat(base, "sec");
  char* earlier = nullptr;
  if (securedir.compare_exchange_strong(earlier, path)) return path;
  free(path);
  return earlier;
}

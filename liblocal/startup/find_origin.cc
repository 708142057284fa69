#include "liblocal/startup/find_origin.h"

#include <sys/auxv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "liblocal/messages/catgets.h"
#include "liblocal/messages/debug.h"
#include "liblocal/messages/print.h"
#include "liblocal/startup/fullp_ux.h"
#include "liblocal/startup/vxenv.h"
#include "liblocal/text/text_view.h"
#include "liblocal/text/utf8_files.h"

namespace {

constexpr size_t kProgramPathSize = 1024;  // bytes of an executable's path, terminator included
constexpr int kTooLongStatus = 111;

char origin[kPathSize];
bool found = false;

bool is_executable(const char* path) {
  vx_stat_record status;
  return utf8_access(path, X_OK) == 0 && vx_stat(path, &status) == 0 && S_ISREG(status.mode);
}

// Looks for `name` in the directories of PATH, in order. Writes the path of the
// first executable into `path`, of kProgramPathSize bytes.
bool search_path(std::string_view name, char* path) {
  const char* list = vxgetenv("PATH");
  for (std::string_view rest = list != nullptr ? list : ".";;) {
    std::string_view directory = text_part(rest, 0, rest.find(':'));
    if (directory.size() + name.size() + 1 < kProgramPathSize) {
      char* at = path + text_copy(directory, path, directory.size());
      *at++ = '/';
      at[text_copy(name, at, name.size())] = '\0';
      if (is_executable(path)) return true;
    }
    if (directory.size() == rest.size()) return false;
    rest.remove_prefix(directory.size() + 1);
  }
}

// The executable as the kernel knows it.
bool ask_kernel(char* path) {
  ssize_t length = utf8_readlink("/proc/self/exe", path, kProgramPathSize);
  return length >= 0 && static_cast<size_t>(length) < kProgramPathSize - 1;  // else perhaps cut
}

bool find_program(const char* argv0, char* path) {
  if (getauxval(AT_SECURE) != 0) return ask_kernel(path);
  if (strchr(argv0, '/') == nullptr) return search_path(argv0, path);
  memcpy(path, argv0, strlen(argv0) + 1);
  return true;
}

// Any of the names could be in a directory of someone else's.
void refuse_hard_links(const char* path, nlink_t links) {
  if (links <= 1) return;
  printerr(
      vxcatgets(Catd, kRuntimeMessageSet, 291, "unable to execute with hard links to binary %s\n"),
      path);
  exit(1);
}

// For whoever wants to know, or wants to know nothing else.
void print_origin(const char* argv0) {
  const char* wish = vxgetenv("KIV_PRINT_ORIGIN");
  if (wish == nullptr) return;
  if (Debug >= 0) debugprintf("origin for `%s' is `%s'\n", argv0, origin);
  if (*wish == 'q' || *wish == 'Q') exit(0);
}

}  // namespace

const char* find_origin(const char* argv0) {
  if (found) return origin;
  if (argv0 == nullptr) return nullptr;
  if (strlen(argv0) >= kProgramPathSize) exit(kTooLongStatus);

  char path[kProgramPathSize];
  if (!find_program(argv0, path)) return nullptr;
  if (fullpath2(path, origin, sizeof origin, kFullpathFollow) == nullptr) return nullptr;
  char* slash = strrchr(origin, '/');
  struct stat status;
  if (slash == nullptr || utf8_lstat(origin, &status) != 0) return nullptr;
  refuse_hard_links(origin, status.st_nlink);
  slash[1] = '\0';
  print_origin(argv0);
  found = true;
  return origin;
}

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
#include "liblocal/text/ascii.h"
#include "liblocal/text/mbt.h"
#include "liblocal/text/text_view.h"
#include "liblocal/text/utf8_convert.h"
#include "liblocal/text/utf8_files.h"

namespace {

constexpr size_t kProgramPathSize = 1024;  // bytes of a program's path, terminator included
constexpr int kTooLongStatus = 111;

char origin[kPathSize];
bool found = false;

bool is_executable(const char* path) {
  struct stat status;
  return access(path, X_OK) == 0 && stat(path, &status) == 0 && S_ISREG(status.st_mode);
}

// Looks for `name` in the directories of PATH, in order. Writes the path of the first
// executable into `path`, of kProgramPathSize bytes.
bool search_path(std::string_view name, char* path) {
  const char* list = getenv("PATH");
  std::string_view rest = list != nullptr ? list : ".";
  for (;;) {
    const size_t colon = rest.find(':');
    const std::string_view directory = text_part(rest, 0, colon);
    if (directory.size() + name.size() + 1 < kProgramPathSize) {
      char* at = path + text_copy(directory, path, directory.size());
      *at++ = '/';
      at[text_copy(name, at, name.size())] = '\0';
      if (is_executable(path)) return true;
    }
    if (colon == rest.npos) return false;
    rest.remove_prefix(colon + 1);
  }
}

// Writes `name`, in the locale's codeset, as UTF-8 into `utf8`, of kPathSize bytes: as text
// when that converts back to the same bytes, else in transparent bytes.
void convert_name(const char* name, char* utf8) {
  if (is_ascii_text(name)) return text_copy_cut(name, utf8, kPathSize);
  char back[kProgramPathSize];
  utf8_mbs(utf8, name, kPathSize);
  ansi_mbs(back, utf8, sizeof back);
  if (strcmp(back, name) != 0) (void)vx_mbstombts(utf8, name, kPathSize);
}

// Writes the path of the program that was started as `argv0` into `path`, of kPathSize
// bytes.
bool find_program(const char* argv0, char* path) {
  if (getauxval(AT_SECURE) != 0) return utf8_readlink("/proc/self/exe", path, kPathSize) >= 0;
  char candidate[kProgramPathSize];
  if (strchr(argv0, '/') == nullptr) {
    if (!search_path(argv0, candidate)) return false;
    argv0 = candidate;
  }
  convert_name(argv0, path);
  return true;
}

// Any of the names may be in a directory that belongs to someone else.
void refuse_hard_links(const char* path, nlink_t links) {
  if (links <= 1) return;
  printerr(
      vxcatgets(Catd, kRuntimeMessageSet, 291, "unable to execute with hard links to binary %s\n"),
      path);
  exit(1);
}

// Prints the origin, and ends the process when the `request` asks for it.
void print_origin(const char* argv0, const char* request) {
  char name[kPathSize];
  convert_name(argv0, name);
  if (Debug >= 0) debugprintf("origin for `%s' is `%s'\n", name, origin);
  if (*request == 'q' || *request == 'Q') exit(0);
}

}  // namespace

const char* find_origin(const char* argv0) {
  if (found) return origin;
  if (argv0 == nullptr) return nullptr;
  if (strlen(argv0) >= kProgramPathSize) exit(kTooLongStatus);

  if (!find_program(argv0, origin)) return nullptr;
  if (fullpath2(origin, origin, sizeof origin, kFullpathFollow) == nullptr) return nullptr;
  struct stat status;
  if (utf8_lstat(origin, &status) != 0) return nullptr;
  refuse_hard_links(origin, status.st_nlink);
  strrchr(origin, '/')[1] = '\0';
  if (const char* request = vxgetenv("KIV_PRINT_ORIGIN")) print_origin(argv0, request);
  found = true;
  return origin;
}

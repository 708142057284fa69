#include "liblocal/messages/catgets.h"

#include <nl_types.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "liblocal/base/text_sizes.h"
#include "liblocal/messages/debug.h"
#include "liblocal/messages/liblvars.h"
#include "liblocal/messages/locales.h"

int64_t Catd = -1;

namespace {

constexpr int32_t kVersionNumber = 264;
constexpr const char* kVersion = "#1";

nl_catd platform_catalog(int64_t catalog) { return reinterpret_cast<nl_catd>(catalog); }

// A catalog without a version passes.
bool is_of_this_version(int64_t catalog) {
  std::string_view version = vxcatgets(catalog, kRuntimeMessageSet, kVersionNumber, "");
  return version.empty() || version == kVersion;
}

}  // namespace

const char* vxcatgets(int64_t catalog, int32_t set, int32_t number, const char* default_text) {
  if (catalog == -1) return default_text;
  // The version check of vxcatopen works during the initialisation, too.
  if (vxinit_done() == 0 && set != kRuntimeMessageSet && number != kVersionNumber)
    return default_text;
  int saved_errno = errno;
  const char* text = catgets(platform_catalog(catalog), set, number, default_text);
  errno = saved_errno;
  return text;
}

int64_t vxcatopen(const char* name, int flags) {
  if (get_lang_subdir() == nullptr) return -1;
  if (name == nullptr || strcmp(name, "kiv") == 0) name = "vaultmre.cat";
  const char* suffix = strchr(name, '.') == nullptr ? ".cat" : "";
  char file[kPathSize];
  int64_t catalog = -1;
  if (static_cast<size_t>(snprintf(file, sizeof file, "%s%s", name, suffix)) < sizeof file) {
    catalog = reinterpret_cast<int64_t>(catopen(file, flags));
  }
  if (catalog == -1) {
    if (Debug > 0) debugprintf("Message catalog \"%s%s\" NOT found.\n", name, suffix);
    return -1;
  }
  if (!is_of_this_version(catalog)) {
    if (Debug > 0) debugprintf("Message catalog \"%s\" incompatible version.\n", file);
    vxcatclose(catalog);
    return -1;
  }
  if (Debug > 0) debugprintf("Message catalog \"%s\" found.\n", file);
  return catalog;
}

int vxcatclose(int64_t catalog) { return catclose(platform_catalog(catalog)); }

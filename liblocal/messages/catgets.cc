#include "liblocal/messages/catgets.h"

#include <nl_types.h>

#include <cerrno>

#include "liblocal/messages/liblvars.h"

int64_t Catd = -1;

namespace {

constexpr int32_t kVersionNumber = 264;

nl_catd platform_catalog(int64_t catalog) { return reinterpret_cast<nl_catd>(catalog); }

}  // namespace

const char* vxcatgets(int64_t catalog, int32_t set, int32_t number, const char* default_text) {
  if (catalog == -1) return default_text;
  // During the initialisation only the runtime's texts and a catalog's version are looked up.
  if (vxinit_done() == 0 && set != kRuntimeMessageSet && number != kVersionNumber)
    return default_text;
  int saved_errno = errno;
  const char* text = catgets(platform_catalog(catalog), set, number, default_text);
  errno = saved_errno;
  return text;
}

int64_t vxcatopen(const char* /*name*/, int /*flags*/) { return -1; }

int vxcatclose(int64_t catalog) { return catclose(platform_catalog(catalog)); }

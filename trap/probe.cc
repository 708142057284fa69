#include "trap/probe.h"

#include <strings.h>

#include "liblocal/startup/vxenv.h"
#include "rpc/c_gen.h"

namespace {

constexpr unsigned long kProgram = 100122;  // registered by stations that want wrapping
constexpr unsigned long kVersion = 0;

}  // namespace

bool wants_wrapped_text(const char* host) {
  if (const char* choice = vxgetenv("KIV_WRAP"); choice != nullptr) {
    if (strcasecmp(choice, "yes") == 0) return true;
    if (strcasecmp(choice, "no") == 0) return false;
  }
  CLIENT* client = __brix_clnt_create(host, kProgram, kVersion, "udp");
  if (client == nullptr) return false;
  client->ops->destroy(client);
  return true;
}

#include "rpc/auth/auth_choice.h"

#include "rpc/auth/a_none.h"
#include "rpc/auth/a_unix.h"

namespace {

// Stronger flavours that a client may carry from elsewhere. Their own fallback to each
// other is not to be had here, so the next one down is system.
constexpr int32_t kFlavoursAboveSystem[] = {6, 30001, 30013};

bool is_above_system(int32_t flavour) {
  for (int32_t above : kFlavoursAboveSystem) {
    if (flavour == above) return true;
  }
  return false;
}

uint32_t allowed_methods(CLIENT* client) {
  uint32_t methods = kAuthMethodsDefault;  // what a request that is not known leaves alone
  client->ops->control(client, CLGET_AUTH_METHODS, &methods);
  return methods;
}

}  // namespace

AUTH* auth_create_default() { return __brix_authnone_create(); }

bool authfallback(CLIENT* client) {
  if (client->auth == nullptr) return false;
  bool above_system = is_above_system(client->auth->credential.flavour);
  if (!above_system && client->auth->credential.flavour != kAuthSystem) return false;
  uint32_t methods = allowed_methods(client);
  client->auth->ops->destroy(client->auth);
  client->auth = nullptr;
  if (above_system && (methods & kAuthMethodsSystem) != 0) {
    client->auth = __brix_authsys_create_default();
  } else if ((methods & kAuthMethodsNone) != 0) {
    client->auth = __brix_authnone_create();
  }
  return client->auth != nullptr;
}

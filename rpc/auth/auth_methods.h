// Which authentication methods a client may use with a server, as far as the process
// knows: a table that another module installs.
#pragma once

#include <netinet/in.h>

#include <cstdint>

/// Stores the mask of methods (clnt.h) for `server` in `*methods`. False when the
/// look-up failed. Called under the process lock.
using rpc_auth_methods_lookup = bool (*)(const sockaddr_in* server, uint32_t* methods);

/// Makes `lookup` the process's table (null: none). Thread safe.
void rpc_install_auth_methods(rpc_auth_methods_lookup lookup);

/// The mask of methods for `server`; kAuthMethodsDefault, with a debug line, when no table is
/// installed and when its look-up fails. Thread safe.
[[nodiscard]] uint32_t rpc_allowed_auth_methods(const sockaddr_in* server);

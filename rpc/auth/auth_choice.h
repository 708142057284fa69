// Which authentication flavour a client uses: the first one, and the next weaker one
// when its server refuses that.
#pragma once

#include "rpc/auth/auth.h"
#include "rpc/handle/clnt.h"

/// The authentication handle that a client starts with when its methods were chosen: the one
/// of the flavour none. Thread safe.
[[nodiscard]] AUTH* auth_create_default();

/// Replaces the authentication of `client`, which its server refused, by a weaker
/// flavour that is allowed (CLGET_AUTH_METHODS; kAuthMethodsDefault when the
/// transport does not answer), and destroys the old one. Returns whether a weaker
/// one was installed. If not, a flavour that has no weaker one is kept; when no weaker one
/// is allowed, the client has no authentication.
bool authfallback(CLIENT* client);

// The authentication flavour none (RFC 5531, section 10.1), which every new client
// starts with.
#pragma once

#include "rpc/auth/auth.h"

/// The process's one handle of this flavour; never null. It is shared by all clients and threads,
/// and destroying it does nothing. Its marshal puts 16 zero bytes, it accepts every verifier, never
/// refreshes, and answers kAuthGetMethod with kAuthMethodNone. Thread safe.
[[nodiscard]] AUTH* __brix_authnone_create();

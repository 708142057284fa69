// Descriptors, as the RPC runtime sees them.
#pragma once

#include <cstdint>

/// The size of the process's descriptor table, at most 65536; asked of the system on
/// the first call and remembered. Thread safe.
[[nodiscard]] int32_t __brix_rpc_dtablesize();

/// Closes `descriptor`. Returns 0, or -1 with errno set. Thread safe.
int rpc_close(int descriptor);

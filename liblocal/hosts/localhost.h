// What this host and its domain are called.
//
// Thread safety: all operations may be called from any thread.
#pragma once

#include <cstddef>

/// Copies the local host's official name, in lower case, into `buffer` of `size`
/// bytes, cut to fit and always terminated. The name is resolved once per process; it
/// is "localhost" when the host's name is unknown to the resolver. Returns `buffer`.
///
/// REQUIRES: `size` > 0.
char* vx_getlocalhost(char* buffer, size_t size);

/// Writes the system's host name into `buffer` of `size` bytes. Returns 0; -1 with the
/// system error recorded as the last error (vx_error.h), ENAMETOOLONG when the name does
/// not fit.
[[nodiscard]] int vx_gethostname(char* buffer, size_t size);

/// Writes the RPC (NIS) domain name, in lower case, into `buffer` of `size` bytes; empty
/// when there is none. Returns 0; -1 with the system error recorded as the last error,
/// ERANGE when the name needs more than `size` bytes.
[[nodiscard]] int vx_getdomainname(char* buffer, size_t size);

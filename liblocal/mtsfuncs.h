// Thread-safe wrappers of the resolver and the service database.
//
// Each result belongs to the calling thread and stays valid until the same
// thread calls the same wrapper again.
#pragma once

#include <netdb.h>

/// Resolves `name` (leading white space is skipped) to its IPv4 addresses.
/// Returns null when it is unknown.
[[nodiscard]] hostent* vx_ts_gethostbyname(const char* name);

/// Looks up the service `name` of `protocol` ("udp", "tcp"); its port is in
/// network byte order. Returns null when it is unknown.
[[nodiscard]] servent* vx_ts_getservbyname(const char* name, const char* protocol);

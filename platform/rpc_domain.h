// The RPC (NIS) domain name of this host.
#pragma once

#include <cstddef>

/// Copies the domain name into `buffer` of `size` bytes, cut to fit and, unless `size`
/// is 0, terminated. A host without a domain has the empty name. Returns the bytes that
/// the whole name takes, terminator included; -1 with `errno` set on failure.
/// Thread safe.
[[nodiscard]] long rpc_domain_name(char* buffer, size_t size);

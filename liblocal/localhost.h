// The local host's own name.
#pragma once

#include <cstddef>

/// Copies the local host's official name, in lower case, into `buffer` of `size`
/// bytes, cut to fit and always terminated. The name is resolved once per
/// process; it is "localhost" when the host's name is unknown to the resolver.
/// Returns `buffer`.
///
/// REQUIRES: `size` > 0.
char* vx_getlocalhost(char* buffer, size_t size);

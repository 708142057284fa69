// Which descriptors carry UTF-8: the text of a marked one is never converted, that of
// any other one is in the locale's codeset.
//
// A mark belongs to the descriptor's number: close a marked stream or descriptor with
// vxfclose, vxclose or vxpclose (utf8.h), or the next file of that number inherits the
// mark. At most 10 descriptors are marked at a time; a further mark is not made.
//
// Thread safety: every operation may be called from any thread; asking takes no lock.
#pragma once

#include <cstdio>

/// Marks a descriptor, or that of a stream. A stream without a descriptor cannot be
/// marked. When the lock of the list cannot be made, SIGTERM is raised.
void utf8_fd(int descriptor);
void utf8_fp(FILE* stream);

/// Removes the mark, if there is one.
void user_fd(int descriptor);
void user_fp(FILE* stream);

/// Whether text on `descriptor` is UTF-8 and passes unconverted.
[[nodiscard]] bool utf8_is_marked(int descriptor);

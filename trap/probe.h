// The question to the management station whether it wants its texts wrapped.
#pragma once

/// What the environment variable KIV_WRAP says: true for "yes", false for "no", in any
/// case of letters; the station is not asked then. With any other value and without
/// one: true when program 100122 version 0 is registered over UDP with a port mapper
/// of `host`. A station whose port mappers are silent costs 50 s, and more where datagrams
/// from others arrive meanwhile. Prints nothing of its own.
[[nodiscard]] bool wants_wrapped_text(const char* host);

// The trap: assembled, sent once and released.
#pragma once

#include "trap/options.h"

/// Sends one trap with `message` (null: an empty text) to the management
/// station. `local_host` is the agent's name or dotted address. Failures are
/// reported. Returns the exit status: 0 when the datagram was handed to the
/// system, else 1.
[[nodiscard]] int deliver_trap(const TrapOptions& options, const char* local_host,
                               const char* message);

// How long the host has been up.
#pragma once

/// Hundredths of a second since the boot that the accounting file records; 0 when it holds
/// no boot record. A record in the future, left when the clock was set back, gives the
/// negative difference as an unsigned number.
[[nodiscard]] unsigned long boot_uptime();

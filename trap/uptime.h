// How long the host has been up.
#pragma once

/// Hundredths of a second since the boot that the accounting file records; 0
/// when it holds no boot record, or one that lies in the future.
[[nodiscard]] unsigned long boot_uptime();

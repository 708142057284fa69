// What the environment says of clients over TCP. Thread safe.
#pragma once

/// When reads and writes of a connection block.
enum class BlockingMode { kNever, kWithoutLimit, kAlways };

/// The process's mode, read from "KIV_BLOCKING_RPC" on the first call: "FALSE",
/// "TRUE", "MUST" in any letter case; kWithoutLimit for anything else.
[[nodiscard]] BlockingMode tcp_blocking_mode();

/// Whether the socket buffers keep the system's sizes: "KIV_SOCK_BUF_UNSET", read on
/// the first call, begins with y or Y. Then a debug line says it once.
[[nodiscard]] bool tcp_keeps_socket_buffers();

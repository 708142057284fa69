// Binding sockets to local ports ("bind reserved port"), from configured ranges where
// there are any.
//
// Thread safety: all operations may be called from any thread; the table of ranges is
// the process's and has one lock.
#pragma once

#include <netinet/in.h>

#include <cstdint>

/// What a local port is for.
enum rpc_port_type : int32_t { kPortService = 0, kPortConnection = 1, kPortReserved = 2 };

/// Binds `socket` to a local port for `type` at `address` (null: any address of this
/// host), whose own port is ignored. Where the type has no ranges the system
/// chooses the port. Otherwise ports of the ranges are tried at random (7 times; where
/// there are more than 500, a quarter of their number but at most 713 times), and then
/// all of them, from where the last such walk ended; only a port in use leads to a next
/// try.
///
/// Returns 0; -1 with errno EADDRNOTAVAIL when no port could be had, EPFNOSUPPORT for
/// an address that is not IPv4, EINVAL for an unknown type.
[[nodiscard]] int __brix_bindresvport(int socket, const sockaddr_in* address, int32_t type);

/// Adds the ports `low` to `high` to the ranges of `type`. Returns 0; -1 with errno
/// EINVAL for an unknown type, port 0 and a range without ports, ENOMEM without memory.
[[nodiscard]] int rpcport_add_range(uint16_t low, uint16_t high, int32_t type);

/// The number of ports in the ranges of `type`; 0: none are configured.
[[nodiscard]] int32_t rpcport_count(int32_t type);

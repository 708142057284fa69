// This host's own IPv4 addresses ("get my addresses").
//
// Thread safety: all operations may be called from any thread. The table of get_myaddrs
// belongs to the process and is written slot by slot, without a lock, by whoever asks;
// its slots change only when the interfaces do, and are read with read_myaddr.
#pragma once

#include <netinet/in.h>

#include <cstdint>

constexpr int32_t kMaxLocalAddresses = 2048;  // slots of the table; more are left out

/// Reads the addresses of all interfaces that are up, loopback included, into the
/// process's table: `*table` is then an array of kMaxLocalAddresses slots, zeroed behind
/// the last one used. Returns the number used, 0 or more; -1 when no socket can be
/// opened, with `*table` set to what was read before. `*table` is null once the process
/// has released its state.
int32_t get_myaddrs(sockaddr_in** table);

/// A slot of the table, which another thread may be writing.
[[nodiscard]] sockaddr_in read_myaddr(const sockaddr_in* slot);

/// 1 when `address` is one of this host's, else 0. For AF_INET it points to 4 bytes in
/// network order, and `length` is not looked at; the address of the last match, 0.0.0.0
/// at first, needs no look at the interfaces. For another family `length` bytes are
/// compared with what follows the family in each slot.
[[nodiscard]] int is_myaddr(int family, const void* address, int32_t length);

/// Writes the first address of an interface that is up and not loopback to `*address`,
/// with port 0; where there is none, that of a loopback interface; else `*address` stays
/// as it is. What fails is told on standard error.
void __brix_get_myaddress(sockaddr_in* address);

// This host's own IPv4 addresses ("get my addresses").
//
// Thread safety: all operations may be called from any thread, also while the process exits.
// The table of get_myaddrs is rebuilt under a lock by whoever asks: read its slots with
// read_myaddr while other threads may ask. A child that was forked while another thread had
// the lock waits for it without end.
#pragma once

#include <netinet/in.h>

#include <cstdint>

/// Slots of the table; further addresses are left out.
constexpr int32_t kMaxLocalAddresses = 2048;

/// Reads the addresses of all interfaces that are up, loopback included, into the process's
/// table: `*table` is then an array of kMaxLocalAddresses slots, zeroed behind the last one
/// used, that lasts for the process. Returns the number used, 0 or more; -1 when no socket can
/// be opened, with `*table` set and its slots unchanged.
int32_t get_myaddrs(sockaddr_in** table);

/// A copy of a slot of the table, which another thread may be rebuilding.
[[nodiscard]] sockaddr_in read_myaddr(const sockaddr_in* slot);

/// 1 when `address` is one of this host's, else 0. For AF_INET it points to 4 bytes in network
/// order, and `length` is not used; 0.0.0.0 and the address of the last match give 1 without a
/// look at the interfaces. For another family `length` bytes are compared with those behind
/// the family in each slot.
[[nodiscard]] int is_myaddr(int family, const void* address, int32_t length);

/// Writes the first address of an interface that is up and not loopback to `*address`, with
/// port 0; if there is none, that of a loopback interface; else `*address` stays as it is.
/// Failures are printed on standard error.
void __brix_get_myaddress(sockaddr_in* address);

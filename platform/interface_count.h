// How many interface records there are.
#pragma once

/// The number of records that SIOCGIFCONF has for the IPv4 socket `socket`, one for each
/// address of each interface; -1 with `errno` set on failure. Thread safe.
[[nodiscard]] int interface_count(int socket);

// Opening the connection of a client over TCP.
#pragma once

#include <netinet/in.h>

/// A new stream socket, bound to a "connection" port, connected to `server`, with
/// keep-alive on, blocking. A connect that finds its addresses in use is tried again
/// with a new socket, twice as often as there are ports of the type. Returns the
/// descriptor, at most 65535; -1 with the creation error set. Thread safe.
[[nodiscard]] int tcp_open_connection(const sockaddr_in& server);

// The control requests of clients over TCP (c_tcp.h).
#pragma once

#include <cstdint>

struct CLIENT;

/// The control operation of their table.
bool tcp_control(CLIENT* client, uint32_t request, void* information);

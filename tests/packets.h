// Capture files for an independent decoder.
#pragma once

#include <cstdint>
#include <string>

#include "tests/lab.h"

/// What a capture file of IPv4 packets begins with.
inline const std::string kCaptureHeader =
    from_hex("D4C3B2A1 02000400 00000000 00000000 FFFF0000 65000000");

/// Adds a UDP packet with `payload` to `port` of 127.0.0.1.
void append_packet(std::string* capture, const std::string& payload, uint16_t port);

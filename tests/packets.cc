#include "tests/packets.h"

#include <netinet/in.h>

namespace {

template <typename T>
void append(std::string* bytes, T value) {
  bytes->append(reinterpret_cast<const char*>(&value), sizeof value);
}

}  // namespace

void append_packet(std::string* capture, const std::string& payload, uint16_t port) {
  // Record header, IPv4, UDP.
  auto udp_length = static_cast<uint16_t>(payload.size() + 8);
  auto length = static_cast<uint16_t>(udp_length + 20);
  for (uint32_t word : {0U, 0U, uint32_t{length}, uint32_t{length}}) append(capture, word);
  append(capture, htons(0x4500));
  append(capture, htons(length));
  *capture += from_hex("00000000 40110000 7F000001 7F000001");
  for (uint16_t word : {uint16_t{40000}, port, udp_length, uint16_t{0}})
    append(capture, htons(word));
  *capture += payload;
}

// Receiving messages and handing them to the callbacks.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstdio>

#include "liblocal/messages/catgets.h"
#include "liblocal/text/vxprint.h"
#include "snmp/snmp.h"
#include "snmp/snmp_rounds.h"
#include "snmp/snmp_send.h"

namespace {

// Offers a response to the requests with its id until it is taken.
void deliver_response(session_entry* entry, snmp_pdu* response) {
  int32_t id = snmp_low_32_bits(response->request_id);
  for (request_record* request = entry->state->requests; request != nullptr;
       request = request->next) {
    if (request->busy || snmp_low_32_bits(request->request_id) != id) continue;
    request->busy = true;
    int result = snmp_call_back(kSnmpReceivedMessage, entry->session, response);
    if (result == 1 || snmp_is_closed(entry)) return;
    request->busy = false;
  }
}

void deliver(session_entry* entry, snmp_pdu* pdu) {
  switch (pdu->command) {
    case kSnmpGetResponse:
      return deliver_response(entry, pdu);
    case kSnmpGetRequest:
    case kSnmpGetNextRequest:
    case kSnmpSetRequest:
    case kSnmpTrap:
      snmp_call_back(kSnmpReceivedMessage, entry->session, pdu);
  }
}

// Reads and delivers one datagram. False when it was mangled, which ends the round.
bool read_session(session_entry* entry) {
  uint8_t packet[kSnmpMaxPacket];
  sockaddr_in from{};
  socklen_t from_length = sizeof from;
  // A datagram whose checksum is wrong is gone by now: that must not block.
  ssize_t length = recvfrom(entry->state->socket, packet, sizeof packet, MSG_DONTWAIT,
                            reinterpret_cast<sockaddr*>(&from), &from_length);
  if (length < 0) {
    perror("recvfrom");
    return true;
  }
  if (snmp_dump_packet != 0) {
    char sender[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &from.sin_addr, sender, sizeof sender);
    vxprintf(vxcatgets(Catd, kCommandMessageSet, 66, "recieved %d bytes from %s:\n"),
             static_cast<int>(length), sender);
    snmp_print_packet(packet, static_cast<int32_t>(length));
  }
  unique_pdu pdu(snmp_pdu_create(0));
  if (pdu == nullptr) return true;  // no memory: the datagram is lost, as on the network
  pdu->address = from;
  const SnmpParse parsed =
      snmp_parse_packet(entry->session, pdu.get(), {packet, static_cast<size_t>(length)});
  if (parsed == SnmpParse::kMangled) {
    vxfprintf(stderr, "%s", vxcatgets(Catd, kCommandMessageSet, 67, "Mangled packet\n"));
    return false;
  }
  // The auth_hook may have closed the session.
  if (parsed == SnmpParse::kDone && !snmp_is_closed(entry)) deliver(entry, pdu.get());
  return true;
}

}  // namespace

void snmp_read(const vx_fd_set* readable) {
  if (!SnmpRound::is_under_way()) snmp_read_round(readable);
}

void snmp_read_round(const vx_fd_set* readable) {
  SnmpRound round;
  for (session_entry* entry = Sessions; entry != nullptr; entry = entry->next) {
    if (VX_FD_ISSET(entry->state->socket, readable) && !read_session(entry)) return;
  }
}

#include "snmp/snmp_send.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "liblocal/base/c_memory.h"
#include "liblocal/messages/catgets.h"
#include "liblocal/text/vxprint.h"
#include "snmp/snmp.h"
#include "snmp/snmp_rounds.h"

int snmp_dump_packet = 0;

namespace {

constexpr long kMicrosecondsPerSecond = 1000000;
constexpr long kTrapRequestId = 1;
constexpr int32_t kDumpColumns = 16;

bool gets_response(int32_t command) {
  return command == kSnmpGetRequest || command == kSnmpGetNextRequest || command == kSnmpSetRequest;
}

// The ids whose low bits are 0 are left out: a result of 0 means failure.
long next_request_id() {
  do {
    ++Reqid;
  } while (snmp_low_32_bits(Reqid) == 0);
  return Reqid;
}

bool complete_trap(snmp_pdu* pdu) {
  pdu->request_id = kTrapRequestId;
  if (pdu->enterprise_length != 0) return true;
  uint64_t* enterprise = snmp_copy_objid(default_enterprise, std::size(default_enterprise));
  if (enterprise == nullptr) return snmp_fail(kSnmpErrGeneric);
  free(pdu->enterprise);
  pdu->enterprise = enterprise;
  pdu->enterprise_length = std::size(default_enterprise);
  return true;
}

bool complete_pdu(snmp_pdu* pdu) {
  if (!gets_response(pdu->command) && pdu->command != kSnmpGetResponse) return complete_trap(pdu);
  if (pdu->request_id == 0) pdu->request_id = next_request_id();
  if (pdu->error_status == -1) pdu->error_status = 0;
  if (pdu->error_index == -1) pdu->error_index = 0;
  return true;
}

bool complete_address(snmp_pdu* pdu, const sockaddr_in& peer) {
  if (pdu->address.sin_addr.s_addr == 0) pdu->address = peer;
  if (pdu->address.sin_addr.s_addr != 0) return true;
  vxfprintf(stderr, "%s",
            vxcatgets(Catd, kCommandMessageSet, 64, "No remote IP address specified\n"));
  return snmp_fail(kSnmpErrUnknownHost);
}

}  // namespace

void snmp_print_packet(const uint8_t* packet, int32_t length) {
  for (int32_t i = 0; i < length; ++i) {
    vxprintf("%02X ", packet[i]);
    if (i % kDumpColumns == kDumpColumns - 1) vxprintf("\n");
  }
  vxprintf("\n\n");
}

int32_t snmp_prepare_packet(const snmp_session* session, const snmp_pdu* pdu, uint8_t* packet) {
  int32_t length = kSnmpMaxPacket;
  if (snmp_build_packet(session, pdu, packet, &length) != 0) {
    vxfprintf(stderr, "%s", vxcatgets(Catd, kCommandMessageSet, 65, "Error building packet\n"));
    snmp_fail(kSnmpErrGeneric);
    return 0;
  }
  if (snmp_dump_packet != 0) snmp_print_packet(packet, length);
  return length;
}

bool snmp_send_packet(int socket, const snmp_pdu* pdu, const uint8_t* packet, int32_t length) {
  ssize_t sent = sendto(socket, packet, static_cast<size_t>(length), 0,
                        reinterpret_cast<const sockaddr*>(&pdu->address), sizeof pdu->address);
  if (sent != -1) return true;
  perror("sendto");
  return snmp_fail(kSnmpErrGeneric);
}

void snmp_start_waiting(request_record* request, const timeval& sent_at) {
  timeval wait = {request->timeout / kMicrosecondsPerSecond,
                  request->timeout % kMicrosecondsPerSecond};
  request->sent_at = sent_at;
  timeradd(&sent_at, &wait, &request->expires_at);
}

int32_t snmp_send(snmp_session* session, snmp_pdu* pdu) {
  session_entry* entry = snmp_find_entry(session);
  if (entry == nullptr) {
    snmp_fail(kSnmpErrUnknownSession);
    return 0;
  }
  if (!complete_pdu(pdu) || !complete_address(pdu, entry->state->peer_address)) return 0;
  uint8_t packet[kSnmpMaxPacket];
  int32_t length = snmp_prepare_packet(session, pdu, packet);
  if (length == 0) return 0;

  // The record is made before anything is sent, so that what was sent is always
  // remembered.
  c_unique_ptr<request_record> request;
  if (gets_response(pdu->command)) {
    request.reset(c_new<request_record>());
    if (request == nullptr) {
      snmp_fail(kSnmpErrGeneric);
      return 0;
    }
  }
  timeval sent_at = request != nullptr ? snmp_now() : timeval{};
  if (!snmp_send_packet(entry->state->socket, pdu, packet, length)) return 0;
  if (request != nullptr) {
    request->request_id = pdu->request_id;
    request->retries = 1;
    request->timeout = std::max(session->timeout, 0L);
    request->pdu = pdu;
    snmp_start_waiting(request.get(), sent_at);
    request->next = entry->state->requests;
    entry->state->requests = request.release();
  }
  return snmp_low_32_bits(pdu->request_id);
}

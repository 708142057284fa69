// The times of pending requests: how long to wait, what to repeat, what to give up.
#include <algorithm>
#include <climits>

#include "snmp/snmp.h"
#include "snmp/snmp_rounds.h"
#include "snmp/snmp_send.h"

namespace {

// Sends `request` once more and waits twice as long for it. A message that cannot
// be built any more skips this turn; the sends still count towards the end.
void repeat_request(const session_entry* entry, request_record* request) {
  uint8_t packet[kSnmpMaxPacket];
  ++request->retries;
  request->timeout = request->timeout > LONG_MAX / 2 ? LONG_MAX : 2 * request->timeout;
  int32_t length = snmp_prepare_packet(entry->session, request->pdu, packet);
  if (length != 0) snmp_send_packet(entry->state->socket, request->pdu, packet, length);
  snmp_start_waiting(request, snmp_now());
}

void expire_requests(session_entry* entry, const timeval& time) {
  for (request_record* request = entry->state->requests; request != nullptr;
       request = request->next) {
    if (snmp_is_closed(entry)) return;
    if (request->busy || !timercmp(&request->expires_at, &time, <)) continue;
    if (request->retries < entry->session->retries) {
      repeat_request(entry, request);
    } else {
      request->busy = true;
      snmp_call_back(kSnmpTimedOut, entry->session, request->pdu);
    }
  }
}

// The earliest expiry over all pending requests; null when there are none.
const timeval* earliest_expiry() {
  const timeval* earliest = nullptr;
  for (const session_entry* entry = Sessions; entry != nullptr; entry = entry->next) {
    for (const request_record* request = entry->state->requests; request != nullptr;
         request = request->next) {
      if (request->busy) continue;
      if (earliest == nullptr || timercmp(&request->expires_at, earliest, <)) {
        earliest = &request->expires_at;
      }
    }
  }
  return earliest;
}

}  // namespace

int snmp_select_info(int* count, vx_fd_set* readable, timeval* timeout, int* block) {
  int sessions = 0;
  for (const session_entry* entry = Sessions; entry != nullptr; entry = entry->next) {
    ++sessions;
    int socket = entry->state->socket;
    if (socket >= kVxFdSetSize) continue;  // the set cannot name it, and the wait ends there
    *count = std::max(*count, socket + 1);
    VX_FD_SET(socket, readable);
  }
  const timeval* earliest = earliest_expiry();
  if (earliest == nullptr) return sessions;

  timeval left{};
  timeval time = snmp_now();
  if (timercmp(earliest, &time, >)) timersub(earliest, &time, &left);
  if (*block == 1 || timercmp(&left, timeout, <)) {
    *timeout = left;
    *block = 0;
  }
  return sessions;
}

void snmp_timeout() {
  if (!SnmpRound::is_under_way()) snmp_timeout_round();
}

void snmp_timeout_round() {
  SnmpRound round;
  timeval time = snmp_now();
  for (session_entry* entry = Sessions; entry != nullptr; entry = entry->next) {
    expire_requests(entry, time);
  }
}

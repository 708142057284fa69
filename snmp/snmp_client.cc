#include "snmp/snmp_client.h"

#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "liblocal/base/vx_select.h"
#include "snmp/snmp_pdu.h"
#include "snmp/snmp_rounds.h"

synch_state snmp_synch_state = {};

namespace {

int synch_callback(int operation, snmp_session* /*session*/, int32_t request_id, snmp_pdu* pdu,
                   void* callback_arg) {
  auto* state = static_cast<synch_state*>(callback_arg);
  if (request_id != state->request_id) return 0;
  if (state->waiting == 0) return 1;  // after the end of its wait it is nobody's
  state->waiting = 0;
  if (operation == kSnmpTimedOut) {
    state->status = kSnmpSynchTimeout;
  } else if (pdu->command == kSnmpGetResponse) {
    state->response = snmp_clone_pdu(pdu);
    state->status = state->response != nullptr ? kSnmpSynchSuccess : kSnmpSynchError;
  }
  return 1;
}

// Whether `pdu` waits on `session` for its response.
bool is_pending(const snmp_session* session, const snmp_pdu* pdu) {
  const session_entry* entry = snmp_find_entry(session);
  const request_record* request = entry != nullptr ? entry->state->requests : nullptr;
  while (request != nullptr && (request->pdu != pdu || request->busy)) request = request->next;
  return request != nullptr;
}

int highest_socket() {
  int highest = 0;
  for (const session_entry* entry = Sessions; entry != nullptr; entry = entry->next) {
    highest = std::max(highest, entry->state->socket);
  }
  return std::min(highest, kVxFdSetSize - 1);
}

// Waits once for a message or for the next expiry, and lets the engine handle it.
void wait_once() {
  int count = 0;
  int block = 1;
  timeval timeout{};
  vx_fd_set readable;  // cleared as far as it is looked at, which is not far
  VX_FD_ZERO_UP_TO(highest_socket(), &readable);
  snmp_select_info(&count, &readable, &timeout, &block);
  int ready = vx_select(count, &readable, nullptr, nullptr, &timeout);
  if (ready > 0) {
    snmp_read(&readable);
  } else if (ready == 0) {
    snmp_timeout();
  } else if (errno != EINTR) {
    perror("select");
    snmp_synch_state.waiting = 0;
  }
}

}  // namespace

synch_state* snmp_synch_setup(snmp_session* session) {
  session->callback = synch_callback;
  session->callback_arg = &snmp_synch_state;
  return &snmp_synch_state;
}

int snmp_synch_response(snmp_session* session, snmp_pdu* pdu, snmp_pdu** response) {
  // A call inside a callback may interrupt another call.
  const synch_state interrupted = snmp_synch_state;
  // What stands when the wait ends without an answer of its own: an error, and no
  // response left over from an earlier call.
  snmp_synch_state = {
      .waiting = 1, .status = kSnmpSynchError, .request_id = 0, .response = nullptr};
  if (snmp_is_too_deep()) {
    snmp_fail(kSnmpErrGeneric);
  } else {
    snmp_synch_state.request_id = snmp_send(session, pdu);
  }
  if (is_pending(session, pdu)) {
    // Not for good: a callback may close the session, and a call inside a callback
    // sees, and does not take, what comes for this one.
    do wait_once();
    while (snmp_synch_state.waiting != 0 && is_pending(session, pdu));
  } else {
    snmp_free_pdu(pdu);  // it could not be sent, or gets no response
  }
  snmp_synch_state.waiting = 0;
  *response = snmp_synch_state.response;
  int status = snmp_synch_state.status;
  if (interrupted.waiting != 0) snmp_synch_state = interrupted;
  return status;
}

#include "snmp/snmp_client.h"

#include <sys/time.h>

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

// Waits once for a message or for the next expiry, and lets the engine handle it. Time-outs
// are looked at after every message, so that many messages cannot delay them.
void wait_once() {
  int count = 0;
  int block = 1;
  timeval timeout{};
  vx_fd_set readable{};
  snmp_select_info(&count, &readable, &timeout, &block);
  int ready = vx_select(count, &readable, nullptr, nullptr, &timeout);
  SnmpRound round;  // what is_pending compares is not freed, and its memory reused, in between
  if (ready >= 0) {
    snmp_read_round(&readable);
    snmp_timeout_round();
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
  static bool under_way = false;  // from the send until the return, unlike `waiting`
  *response = nullptr;
  if (under_way) {
    snmp_free_pdu(pdu);
    snmp_fail(kSnmpErrGeneric);
    return kSnmpSynchError;
  }
  under_way = true;
  // The result when the wait ends without an answer of its own is an error.
  snmp_synch_state = {
      .waiting = 1, .status = kSnmpSynchError, .request_id = 0, .response = nullptr};
  snmp_synch_state.request_id = snmp_send(session, pdu);
  if (is_pending(session, pdu)) {
    // A callback may close the session, which ends the wait too.
    do wait_once();
    while (snmp_synch_state.waiting != 0 && is_pending(session, pdu));
  } else {
    snmp_free_pdu(pdu);  // it could not be sent, or gets no response
  }
  snmp_synch_state.waiting = 0;
  under_way = false;
  *response = snmp_synch_state.response;
  return snmp_synch_state.status;
}

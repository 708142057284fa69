#include "snmp/snmp_client.h"

#include <sys/time.h>

#include <cerrno>
#include <cstdio>

#include "liblocal/threads/vx_select.h"
#include "snmp/snmp_api.h"
#include "snmp/snmp_pdu.h"

synch_state snmp_synch_state = {};

namespace {

void stop_waiting(int status) {
  snmp_synch_state.waiting = 0;
  snmp_synch_state.status = status;
}

int synch_callback(int operation, snmp_session* /*session*/, int32_t request_id, snmp_pdu* pdu,
                   void* callback_arg) {
  auto* state = static_cast<synch_state*>(callback_arg);
  if (request_id != state->request_id) return 0;
  state->waiting = 0;
  if (operation == kSnmpTimedOut) {
    state->status = kSnmpSynchTimeout;
  } else if (pdu->command == kSnmpGetResponse) {
    state->response = snmp_clone_pdu(pdu);
    state->status = state->response != nullptr ? kSnmpSynchSuccess : kSnmpSynchError;
  }
  return 1;
}

// Waits once for a message or for the next expiry, and lets the engine handle it.
void wait_once() {
  int count = 0;
  int block = 1;
  timeval timeout{};
  vx_fd_set readable;
  VX_FD_ZERO(&readable);
  snmp_select_info(&count, &readable, &timeout, &block);
  // No request is pending any more: a callback of another session closed ours, and
  // a wait without limit would have no end.
  if (block == 1) return stop_waiting(kSnmpSynchError);
  int ready = vx_select(count, &readable, nullptr, nullptr, &timeout);
  if (ready > 0) {
    snmp_read(&readable);
  } else if (ready == 0) {
    snmp_timeout();
  } else if (ready < -1) {
    stop_waiting(kSnmpSynchError);
  } else if (errno != EINTR) {
    perror("select");
    stop_waiting(kSnmpSynchError);
  }
}

}  // namespace

synch_state* snmp_synch_setup(snmp_session* session) {
  session->callback = synch_callback;
  session->callback_arg = &snmp_synch_state;
  return &snmp_synch_state;
}

int snmp_synch_response(snmp_session* session, snmp_pdu* pdu, snmp_pdu** response) {
  // What stands when the wait ends without an answer of its own: an error, and no
  // response left over from an earlier call.
  snmp_synch_state = {
      .waiting = 1, .status = kSnmpSynchError, .request_id = 0, .response = nullptr};
  *response = nullptr;
  snmp_synch_state.request_id = snmp_send(session, pdu);
  if (snmp_synch_state.request_id == 0) {
    snmp_synch_state.waiting = 0;
    snmp_free_pdu(pdu);
    return kSnmpSynchError;
  }
  while (snmp_synch_state.waiting != 0) wait_once();
  // A response that comes after the end of its wait is nobody's.
  snmp_synch_state.request_id = 0;
  *response = snmp_synch_state.response;
  return snmp_synch_state.status;
}

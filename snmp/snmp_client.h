// The synchronous request call on top of SNMP sessions.
//
// Not thread safe; one synchronous request can be outstanding at a time.
#pragma once

#include <cstdint>

struct snmp_pdu;
struct snmp_session;

// Results of a synchronous request.
constexpr int kSnmpSynchSuccess = 0;
constexpr int kSnmpSynchError = 1;
constexpr int kSnmpSynchTimeout = 2;

/// What the one synchronous request waits for, and what it got.
struct synch_state {
  int waiting;
  int status;
  int32_t request_id;  // what snmp_send returned
  snmp_pdu* response;
};

extern synch_state snmp_synch_state;

/// Makes `session` one for synchronous requests: sets its callback and its
/// callback argument. Returns the state that they use.
synch_state* snmp_synch_setup(snmp_session* session);

/// Sends `pdu`, a Get, GetNext or Set request, and waits for its response or its
/// time-out. `pdu` belongs to the call from here on, also when it fails. A PDU of
/// another kind is sent, and the result is an error: nothing answers it.
///
/// REQUIRES: snmp_synch_setup was called for `session`.
///
/// A callback may call it too. What comes for a call that is thereby interrupted is
/// not taken meanwhile, so that its request is repeated. Fails at once inside 16
/// calls of snmp_read and snmp_timeout.
///
/// Returns 0 with `*response` set, which the caller releases with snmp_free_pdu;
/// or 1 (error) or 2 (timed out) with `*response` null.
[[nodiscard]] int snmp_synch_response(snmp_session* session, snmp_pdu* pdu, snmp_pdu** response);

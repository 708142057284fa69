// The synchronous request call on top of SNMP sessions.
//
// Not thread safe; one synchronous request can be under way at a time.
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
  int waiting;         //!< 1 until its response or its time-out
  int status;          //!< one of the results above
  int32_t request_id;  //!< what snmp_send returned
  snmp_pdu* response;  //!< a copy of the response, or null
};

extern synch_state snmp_synch_state;  //!< for the callback that snmp_synch_setup sets

/// Makes `session` one for synchronous requests: sets its callback and its callback argument.
/// Returns the state that they use.
synch_state* snmp_synch_setup(snmp_session* session);

/// Sends `pdu`, a Get, GetNext or Set request, and waits for its response or its time-out.
/// Meanwhile the callbacks of other sessions are called for what arrives. `pdu` belongs to
/// the call from here on, also when it fails. A PDU of another kind is sent, and the result
/// is an error: nothing answers it. The response is matched by its id alone: who sent it is
/// in snmp_pdu::address.
///
/// A callback may call it too, unless another synchronous request is under way: then nothing
/// is sent and the result is an error.
///
/// REQUIRES: snmp_synch_setup was called for `session`.
///
/// Returns 0 with `*response` set, which the caller releases with snmp_free_pdu; or 1 (error)
/// or 2 (timed out) with `*response` null.
[[nodiscard]] int snmp_synch_response(snmp_session* session, snmp_pdu* pdu, snmp_pdu** response);

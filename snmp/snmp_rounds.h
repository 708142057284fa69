// The open sessions and the rounds over them: what the parts of the session layer
// share. Programs include snmp_api.h.
//
// A round is one call of snmp_read or snmp_timeout. A callback may close any session
// and start a round inside the round, so what a round may have in hand stays until
// the outermost round ends: a closed entry and a finished request keep their memory
// and their `next`.
//
// Not thread safe.
#pragma once

#include <sys/time.h>

#include <cstdint>

#include "snmp/snmp_api.h"

/// The entry of an open session, or null.
[[nodiscard]] session_entry* snmp_find_entry(const snmp_session* session);

/// Whether a callback of this round closed the session of `entry`.
[[nodiscard]] inline bool snmp_is_closed(const session_entry* entry) {
  return entry->state->socket == -1;
}

/// Starts a round. False when so many are running inside each other that the stack
/// might not hold another one; nothing is then to be ended.
[[nodiscard]] bool snmp_begin_round();

/// Ends a round. With the outermost one, busy requests and closed sessions go.
void snmp_end_round();

/// Whether snmp_begin_round would fail.
[[nodiscard]] bool snmp_is_too_deep();

/// Calls the session's callback, if it has one, and returns its result, else 0.
int snmp_call_back(int operation, snmp_session* session, snmp_pdu* pdu);

/// Stores `code` in snmp_errno. The result is always false.
bool snmp_fail(int code);

/// A request id as it travels.
[[nodiscard]] inline int32_t snmp_low_32_bits(long request_id) {
  return static_cast<int32_t>(request_id);
}

/// The time of day.
[[nodiscard]] inline timeval snmp_now() {
  timeval time{};
  gettimeofday(&time, nullptr);
  return time;
}

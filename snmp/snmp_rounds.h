// The open sessions and the rounds over them: what the parts of the session layer share.
// Programs include snmp_api.h.
//
// A round reads every session once, or looks at the time of every request once. Its
// callbacks may close any session, and a synchronous request inside a callback runs rounds
// inside the round. So nothing that a round may still point at is freed before the outermost
// one ends: a closed entry and a finished request keep their memory and their `next`.
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

/// Frees, when the outermost round ends, the busy requests and the closed sessions.
class SnmpRound {
 public:
  SnmpRound();
  ~SnmpRound();
  SnmpRound(const SnmpRound&) = delete;
  /// Whether a round is under way.
  static bool is_under_way();
};

/// snmp_read and snmp_timeout as a synchronous request calls them, inside a callback too.
void snmp_read_round(const vx_fd_set* readable);
void snmp_timeout_round();

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

// What a program asks of an SNMP session: who the peer is, how long to wait, and what to
// call when something arrives.
#pragma once

#include <cstdint>

struct snmp_pdu;
struct snmp_session;

// Operations that a callback is called for.
constexpr int kSnmpReceivedMessage = 1;
constexpr int kSnmpTimedOut = 2;

// Values that select a session's defaults.
constexpr int32_t kSnmpDefaultRetries = -1;
constexpr long kSnmpDefaultTimeout = -1;

/// Filter for received messages, called between the community and the PDU. Returns the
/// position to continue from (and may change `*left`, the bytes there), or null, which drops
/// the message. It may call what a callback may call.
using snmp_auth_hook = const uint8_t* (*)(const uint8_t* pdu, int32_t* left,
                                          const uint8_t* community, int32_t community_length);

/// Receives messages and time-outs. The PDU is released after the call. The request id has
/// 32 bits, as snmp_send returns it. For a response a result of 1 means that it was taken:
/// the pending request is then removed. A response is matched by its request id alone; a
/// callback that must know who sent it looks at `pdu->address`.
///
/// A callback may send, open sessions and close them, its own too. snmp_read and
/// snmp_timeout do nothing when a callback calls them. snmp_synch_response fails when a
/// callback calls it while another synchronous request is under way.
using snmp_callback = int (*)(int operation, snmp_session* session, int32_t request_id,
                              snmp_pdu* pdu, void* callback_arg);

/// A template that the caller fills, and the session's own copy, which owns its community
/// and peer name. A new record asks for every default: give it the fields that differ.
/// REQUIRES: a program that clears the record itself (memset) sets `retries` and `timeout`.
struct snmp_session {
  uint8_t* community = nullptr;           //!< bytes, without terminator
  int32_t community_length = 0;           //!< 0 in the template selects "public"
  int32_t retries = kSnmpDefaultRetries;  //!< sends before a request times out; -1 selects 4
  long timeout = kSnmpDefaultTimeout;     //!< microseconds to the first repeat; -1: 1000000
  char* peer_name = nullptr;              //!< host name or dotted address; null: no peer
  uint16_t remote_port = 0;               //!< host order; 0: service "snmp"/"udp", or 161
  uint16_t local_port = 0;                //!< host order; 0: the system chooses
  snmp_auth_hook auth_hook = nullptr;     //!< or null
  snmp_callback callback = nullptr;       //!< or null
  void* callback_arg = nullptr;           //!< passed to `callback`
};

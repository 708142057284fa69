// What a program states of an SNMP session: who the peer is, how long to wait,
// and what to call when something arrives.
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

/// Filter for received messages, called between the community and the PDU. It
/// returns the position to continue from (and may change `*left`, the bytes
/// there), or null, which drops the message.
using snmp_auth_hook = const uint8_t* (*)(const uint8_t* pdu, int32_t* left,
                                          const uint8_t* community, int32_t community_length);

/// Receives messages and time-outs. The PDU is released after the call. The
/// request id has 32 bits, as snmp_send returns it. For a response a result of 1
/// means that it was taken: the pending request is then removed. It may call every
/// operation of the engine; meanwhile the request that it is called for waits for
/// nothing.
using snmp_callback = int (*)(int operation, snmp_session* session, int32_t request_id,
                              snmp_pdu* pdu, void* callback_arg);

/// A template that the caller fills (all zero but for what it wants), and the
/// session's own copy, which owns its community and peer name.
struct snmp_session {
  uint8_t* community;        // bytes, without terminator
  int32_t community_length;  // 0 in the template selects "public"
  int32_t retries;           // sends per request before it times out; -1 selects 4
  long timeout;              // microseconds before the first repeat; -1 selects 1000000
  char* peer_name;           // host name or dotted address; null: no default peer
  uint16_t remote_port;      // host order; 0: service "snmp"/"udp", or 161
  uint16_t local_port;       // host order; 0: the system chooses
  snmp_auth_hook auth_hook;  // or null
  snmp_callback callback;    // or null
  void* callback_arg;
};

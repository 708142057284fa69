// SNMP sessions over UDP: open, send, receive, repeat and close.
//
// A program opens a session and sends PDUs on it. For responses it runs a loop:
// snmp_select_info computes what to wait for and how long, vx_select waits, and snmp_read or
// snmp_timeout then calls the session's callback. What a callback may call is said at
// snmp_callback.
//
// Not thread safe: one thread at a time may use the engine.
#pragma once

#include <netinet/in.h>
#include <sys/time.h>

#include <cstdint>

#include "liblocal/base/vx_select.h"
#include "snmp/snmp_pdu.h"
#include "snmp/snmp_session.h"

// Codes left in snmp_errno.
constexpr int kSnmpErrGeneric = -1;         //!< no socket, memory, message or send
constexpr int kSnmpErrBadLocalPort = -2;    //!< the local port cannot be bound
constexpr int kSnmpErrUnknownHost = -3;     //!< unknown peer, or no peer at all
constexpr int kSnmpErrUnknownSession = -4;  //!< not an open session

/// A request that waits for its response.
struct request_record {
  request_record* next;  //!< the request sent before this one, or null
  long request_id;       //!< as the PDU carries it
  int32_t retries;       //!< sends so far
  long timeout;          //!< microseconds, current value
  timeval sent_at;       //!< last send
  timeval expires_at;    //!< sent_at + timeout
  snmp_pdu* pdu;         //!< owned
  bool busy;             //!< the callback has it, or had it: freed when no round is under way
};

/// The engine's side of an open session.
struct session_state {
  int socket;                //!< -1 before it is opened and after snmp_close
  sockaddr_in peer_address;  //!< all zero without a peer
  request_record* requests;  //!< newest first
};

/// One open session.
struct session_entry {
  session_entry* next;         //!< the session opened before this one, or null
  snmp_session* session;       //!< what snmp_open returned
  session_state* state;        //!< the engine's side
  session_entry* next_closed;  //!< after snmp_close in a callback: until its round ends
};

extern session_entry* Sessions;  //!< open sessions, newest first
extern long Reqid;               //!< last request id given out; 0 until seeded
extern int snmp_errno;           //!< code of the last failure
extern int snmp_dump_packet;     //!< non-zero: dump every packet on standard output

/// Opens a session as `session_template` asks, which is not used after the call. Returns
/// the session's own copy, released with snmp_close, or null with snmp_errno set and the
/// reason on standard error; nothing is then left behind. One session serves many peers:
/// snmp_pdu::address is where a PDU is sent.
[[nodiscard]] snmp_session* snmp_open(const snmp_session* session_template);

/// Closes `session` and releases it with its pending requests. When a callback calls it, what
/// was passed to the callback is valid until the callback returns. Returns 1, or 0 with
/// snmp_errno -4 when it is not an open session.
int snmp_close(snmp_session* session);

/// Sends `pdu` in one datagram, to its own address or else to the session's peer. A Get,
/// GetNext or Set request then belongs to the session until its response or time-out; any
/// other PDU stays the caller's. Missing fields are filled in: request id 0, error fields -1,
/// an empty enterprise of a trap.
///
/// REQUIRES: the low 32 bits of a request id of the caller's own are not all 0, which the
/// result could not tell from a failure.
///
/// Returns the low 32 bits of the request id (1 for a trap), or 0 with snmp_errno set; `pdu`
/// then stays the caller's and nothing is remembered.
[[nodiscard]] int32_t snmp_send(snmp_session* session, snmp_pdu* pdu);

/// Reads one datagram of every session whose socket is in `readable` and calls its callback.
/// A response is matched to requests by its id alone: who sent it is in snmp_pdu::address.
/// A mangled message ends the call early; what is still unread then stays readable. Does
/// nothing when a callback calls it.
void snmp_read(const vx_fd_set* readable);

/// Prepares a wait: adds every session's socket to `readable` and raises `*count` above it.
/// With requests pending, if `*block` is 1 or the first expiry comes before `*timeout`, stores
/// the time to that expiry in `*timeout` and clears `*block`. Returns the number of open
/// sessions.
int snmp_select_info(int* count, vx_fd_set* readable, timeval* timeout, int* block);

/// Repeats every request whose time is up, with its time-out doubled, or reports it to the
/// callback and removes it when its sends are used up. Does nothing when a callback calls it.
void snmp_timeout();

/// Stores the address of the host `name`, a host name or dotted IPv4 address, in `*address`,
/// in network byte order. Returns false, after a message on standard error and with
/// snmp_errno -3, when the name is unknown.
[[nodiscard]] bool snmp_find_host(const char* name, in_addr* address);

/// The text of a code by its index, code + 4. The library owns it.
[[nodiscard]] const char* api_errors(int index);

/// The general text "Unknown Error", whatever the code.
[[nodiscard]] const char* api_errstring(int code);

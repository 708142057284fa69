// The private record of a client over TCP, which its parts work on.
#pragma once

#include <netinet/in.h>
#include <sys/time.h>

#include <cstdint>

#include "rpc/handle/clnt.h"
#include "rpc/transport/c_tcp.h"
#include "rpc/xdr/xdr.h"

constexpr uint32_t kTcpHeaderRoom = 24;  // bytes for the header of all calls
constexpr uint32_t kTcpPendingRoom = 4;  // bytes read ahead at once

/// How a socket waits, as far as the transport has looked.
enum class SocketMode : int32_t { kUnknown = -1, kNonBlocking = 0, kBlocking = 1 };

/// What a client over TCP is.
struct TcpRecord {
  int32_t socket;
  bool close_socket;  // by destroy
  SocketMode socket_mode;
  SocketMode original_mode;  // before the transport changed it; destroy gives it back
  timeval wait;              // limit of a call
  rpc_wait_state wait_state;
  rpc_wait waiting;  // how; without a function the step equals the wait
  bool watch_input;  // while waiting to write
  sockaddr_in server;
  rpc_err error;                   // of the last call
  uint8_t header[kTcpHeaderRoom];  // encoded; begins with the transaction id
  uint32_t header_length;
  XDR stream;
  uint8_t pending[kTcpPendingRoom];  // input read while writing
  uint32_t pending_length;
  bool cancelled_at_end;  // by a wait function asked after all was done
  bool confirmed;         // a call was accepted
  bool one_call_enabled;
  bool one_call_armed;
  uint32_t auth_methods;  // mask of allowed ones
};

/// The record of `client`, which the TCP transport made.
inline TcpRecord* tcp_record_of(CLIENT* client) {
  return static_cast<TcpRecord*>(client->private_data);
}

/// Makes `status` with `detail` (an error number or auth_state) the record's error.
inline clnt_stat tcp_finish(TcpRecord* record, clnt_stat status, int32_t detail = 0) {
  record->error = {};
  record->error.status = status;
  record->error.error_number = detail;
  return status;
}

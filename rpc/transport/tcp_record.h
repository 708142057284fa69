// The private record of a client over TCP, which its parts work on.
#pragma once

#include <sys/time.h>

#include <cstdint>

#include "rpc/messages/rpc_prot.h"
#include "rpc/transport/c_tcp.h"
#include "rpc/transport/c_transport.h"

constexpr uint32_t kTcpPendingRoom = 4;  //!< bytes read ahead at once

/// How a socket waits, as far as the transport has looked.
enum class SocketMode { kUnknown, kNonBlocking, kBlocking };

/// What a client over TCP is. Its stream is a record stream (x_rec.h).
struct TcpRecord : ClientRecord {
  SocketMode socket_mode;
  SocketMode original_mode;  //!< before the transport changed it; destroy gives it back
  timeval wait;              //!< limit of a call
  rpc_wait_state wait_state;
  rpc_wait waiting;                    //!< how; without a function the step equals the wait
  bool watch_input;                    //!< while waiting to write
  uint8_t header[kRpcCallHeaderSize];  //!< encoded; begins with the transaction id
  uint32_t header_length;
  uint8_t pending[kTcpPendingRoom];  //!< input read while writing
  uint32_t pending_length;
  bool one_call_enabled;
  bool one_call_armed;
  uint32_t auth_methods;  //!< mask of allowed ones
};

/// The record of `client`, which the TCP transport made.
inline TcpRecord* tcp_record_of(CLIENT* client) {
  return static_cast<TcpRecord*>(rpc_record_of(client));
}

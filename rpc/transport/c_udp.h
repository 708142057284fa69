// Clients over UDP: one datagram for a call, sent again until a reply comes (RFC 5531,
// section 5).
//
// A call is sent to the server, and sent again each time the retransmission interval
// has passed without a reply, for as long as the intervals waited add up to less than
// the time limit. There is no back-off. With an interval of 5 s and a limit of 25 s it
// is sent at 0, 5, 10, 15 and 20 s and given up at 25 s (RPC_TIMEDOUT). A limit of
// zero sends once and ends with RPC_TIMEDOUT at once. The limit is the one set with
// CLSET_TIMEOUT, else the one given with the call. A wait that a signal interrupts, or that
// ends with a datagram which is not the reply, begins again in full. No clock is read.
//
// A refused call is repeated when the authentication falls back or refreshes. The
// socket is never connected: a port on the server that nobody listens on is no error,
// only silence.
//
// Control requests: CLSET_TIMEOUT, CLGET_TIMEOUT, CLGET_SERVER_ADDR,
// CLSET_RETRY_TIMEOUT, CLGET_RETRY_TIMEOUT, CLGET_FD, CLSET_FD_CLOSE,
// CLSET_FD_NCLOSE, CLSET_AUTH_CONFIRMED, CLGET_AUTH_CONFIRMED (clnt.h). Each needs a
// pointer that is not null, even where it is not used; all others are false.
#pragma once

#include <netinet/in.h>
#include <sys/time.h>

#include <cstdint>

#include "rpc/handle/clnt.h"

constexpr uint32_t kUdpMessageSize = 8800;  //!< bytes that a call and its reply may have

/// A client of `program` and `version` at `server`, with the none authentication. When
/// the address has port 0, the server's port mapper is asked (p_getprt.h) and the
/// answer stored there. `retry` is the retransmission interval; zero means the
/// time limit, so nothing is sent twice. `*socket` is an open datagram socket, which
/// stays the caller's, or -1: then one is opened, stored there and closed by destroy.
///
/// Calls and replies may have kUdpMessageSize bytes. Returns null with the thread's
/// creation error set (rpcvarp.h): RPC_SYSTEMERROR with ENOMEM, EMFILE for a
/// descriptor above 65535, or what socket or bind failed with; or the reason why no
/// port mapper gave a port.
[[nodiscard]] CLIENT* __brix_clntudp_create(sockaddr_in* server, unsigned long program,
                                            unsigned long version, timeval retry, int* socket);

/// __brix_clntudp_create with the sizes given: below 100 they become 4000, others are
/// rounded up to a multiple of 4.
[[nodiscard]] CLIENT* __brix_clntudp_bufcreate(sockaddr_in* server, unsigned long program,
                                               unsigned long version, timeval retry, int* socket,
                                               uint32_t send_size, uint32_t receive_size);

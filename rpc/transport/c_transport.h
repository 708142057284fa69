// The transports of clients: UDP (c_udp.h) and TCP (c_tcp.h, of the tcp_ files). This
// header has what they share: their socket, the header of their calls, and what a refused
// call leads to.
//
// Thread safety: all operations may be called from any thread.
#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "rpc/handle/clnt.h"
#include "rpc/xdr/xdr.h"

/// Has the port of the program in `*server`: asks the port mapper for a port of the IP
/// protocol `protocol` when there is none yet. False with the creation error set.
[[nodiscard]] bool rpc_find_port(sockaddr_in* server, unsigned long program, unsigned long version,
                                 unsigned long protocol);

/// Opens an IPv4 socket of `type` (flags of socket(2) may be added) and `protocol`,
/// closed by exec, and binds it to a local port of the type "connection". Returns the
/// descriptor, at most 65535. Otherwise -1, with the system's error as the creation
/// error; a socket that cannot be bound is also told on standard error.
[[nodiscard]] int rpc_open_client_socket(int type, int protocol);

/// Whether `descriptor` is one that vx_select can wait on; if not, the creation error
/// says EMFILE.
[[nodiscard]] bool rpc_can_wait_on(int descriptor);

/// Puts the header of all calls of a client to `program` and `version` on `xdrs`, an
/// encoding stream with room for kRpcCallHeaderSize bytes. It begins with a new
/// transaction id.
void rpc_put_call_header(XDR* xdrs, unsigned long program, unsigned long version);

/// Whether a call of `client` that came to `error` is worth repeating: because its
/// authentication fell back to a weaker flavour, which only one that no server has
/// `confirmed` may do, or because it made new credentials, at most `*refreshes` times
/// more.
[[nodiscard]] bool rpc_try_again(CLIENT* client, const rpc_err& error, bool confirmed,
                                 int32_t* refreshes);

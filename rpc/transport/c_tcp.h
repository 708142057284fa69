// Clients over TCP: calls over one connection, each message a record (x_rec.h).
//
// The limit of a call is the time set with CLSET_TIMEOUT, else the call's own. It counts
// within one reading: whatever arrives, also a part of a record or the reply to another
// call, begins it anew, so that a server can keep a long call alive. A partial write begins
// it anew, too. The call ends when the limit is reached; the last wait step is cut short.
// Without CLSET_TIMEOUT the time of a call also replaces the step of its wait function.
//
// A call with time zero and no results filter (null) is one-way: it returns RPC_SUCCESS
// once its record is buffered. The buffer is sent with the next call that is not one-way,
// or when it is nearly full; destroying the client drops what is left. A call
// with time zero and a results filter is sent and ends with RPC_TIMEDOUT. Where the limit is
// zero, sending waits for room as long as the peer needs, and leaves no record half sent.
// Replies to other calls are dropped. A refused call is repeated when the authentication
// falls back or refreshes.
//
// A wait function is called before a read or write, after each wait step and at the
// end. A result other than 0 ends the call with RPC_CANCELLED. Like a call that
// timed out, a cancelled one leaves the client usable, unless a part of a record had
// left by then: that connection is shut down and all further calls end with RPC_CANTSEND
// with EPIPE.
//
// How the socket is driven: "KIV_BLOCKING_RPC" makes the process's mode 1 ("TRUE",
// and the default), 0 ("FALSE") or 2 ("MUST"), read when the first client of this
// kind is made. In mode 2 reads and writes block, whatever the limits. A client
// without limit and wait function blocks in mode 1, and in mode 0 when it does not
// watch its input. All others wait at a non-blocking socket.
//
// No SIGPIPE is raised. Thread safety: a client is used by one thread at a time.
#pragma once

#include <netinet/in.h>
#include <sys/time.h>

#include <cstdint>

#include "rpc/handle/clnt.h"

/// Asked while a call waits: the time that has counted towards its limit, the function's
/// argument, the time of day. An answer other than 0 cancels the call.
using rpc_wait_function = int32_t (*)(const timeval* elapsed, void* argument, const timeval* now);

/// The information of CLSET_WAIT_FUNCTION and CLGET_WAIT_FUNCTION.
struct rpc_wait {
  timeval step;  //!< the longest single wait
  rpc_wait_function function;
  void* argument;
};

/// The wait state of CLGET_WAIT_STATE and CLSET_WAIT_STATE.
enum rpc_wait_state : int32_t {
  kWaitOfCall = 0,   //!< each call says its own limit
  kWaitSet = 1,      //!< CLSET_TIMEOUT gave it
  kWaitNoLimit = 2,  //!< CLSET_TIMEOUT gave null
};

/// A client of `program` and `version` at `server`, with the none authentication. When
/// the address has port 0, the server's port mapper is asked (p_getprt.h) and the
/// answer stored there. `*socket` is a connected stream socket, which stays the
/// caller's and gets its blocking mode back from destroy; or -1: then one is opened,
/// bound to a "connection" port, connected, stored there and closed by destroy. A
/// connection that fails with EADDRINUSE is tried again, twice as often as there are
/// ports.
///
/// The sizes are those of the buffers (rpc_buffer_size); messages may be larger.
/// Control requests: those of the UDP transport but for the retry interval, and all from
/// CLGET_RECEIVE_SIZE to CLSET_WAIT_STATE (clnt.h). Null for CLSET_TIMEOUT means no limit, for
/// CLSET_WAIT_FUNCTION no function. Other requests that need a pointer are false for null.
///
/// Returns null with the thread's creation error set (rpcvarp.h): RPC_SYSTEMERROR with
/// ENOMEM, EMFILE for a descriptor above 65535, or what socket, bind or connect failed
/// with; or the reason why no port mapper gave a port.
[[nodiscard]] CLIENT* __brix_clnttcp_create(sockaddr_in* server, unsigned long program,
                                            unsigned long version, int* socket, uint32_t send_size,
                                            uint32_t receive_size);

/// The record stream of a client made here; it stays the client's.
[[nodiscard]] XDR* get_xdr_from_chandle(CLIENT* client);

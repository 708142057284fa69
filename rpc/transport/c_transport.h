// The transports of clients: UDP (c_udp.h) and TCP (c_tcp.h, of the tcp_ files). This
// header has what they share: the beginning of their records, their sockets, and what
// replies and refusals lead to.
//
// Thread safety: all operations may be called from any thread; a record belongs to its
// client, which is used by one thread at a time.
#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "rpc/handle/clnt.h"
#include "rpc/messages/rpc_msg.h"
#include "rpc/xdr/xdr.h"

constexpr int32_t kRefreshTries = 2;  //!< of the credentials, within a call

/// What the record of a client begins with. It holds the client itself.
struct ClientRecord {
  CLIENT handle;
  int32_t socket;
  bool close_socket;  //!< by destroy
  bool confirmed;     //!< a call was accepted
  sockaddr_in server;
  rpc_err error;  //!< of the last call
  XDR stream;     //!< calls are encoded here
};

/// The record of `client`.
inline ClientRecord* rpc_record_of(CLIENT* client) {
  return static_cast<ClientRecord*>(client->private_data);
}

/// Makes `record` that of its client, with `ops` and the none authentication. Returns the
/// client.
CLIENT* rpc_complete_client(ClientRecord* record, const clnt_ops* ops);

/// Sets `errno` and the creation error to ENOMEM. Returns null.
CLIENT* rpc_out_of_memory();

/// Fills in the port of `*server` if it is 0: asks the port mapper for the program's port
/// of the IP protocol `protocol`. False with the creation error set.
[[nodiscard]] bool rpc_find_port(sockaddr_in* server, unsigned long program, unsigned long version,
                                 unsigned long protocol);

/// Opens an IPv4 socket of `type` (flags of socket(2) may be added) and `protocol`,
/// closed by exec, and binds it to a local port of the type "connection". Returns the
/// descriptor, at most 65535. Otherwise -1, with the system's error as the creation
/// error; a socket that cannot be bound is also reported on standard error.
[[nodiscard]] int rpc_open_client_socket(int type, int protocol);

/// Whether `descriptor` is at most 65535; if not, `errno` and the creation error say EMFILE.
[[nodiscard]] bool rpc_can_wait_on(int descriptor);

/// Puts the header of all calls of a client to `program` and `version` on `xdrs`, an
/// encoding stream with room for kRpcCallHeaderSize bytes. It begins with a new
/// transaction id.
void rpc_put_call_header(XDR* xdrs, unsigned long program, unsigned long version);

/// Makes `status` with `detail` (an error number or auth_state) the error of the record.
/// Returns `status`.
clnt_stat rpc_finish(ClientRecord* record, clnt_stat status, int32_t detail = 0);

/// What a call begins with: whether the client has an authentication, refreshed if that is
/// due. If not, the call's status is that of the record's error.
[[nodiscard]] bool rpc_has_auth(CLIENT* client);

/// Makes what `reply` says the error of the client's record. True when the server accepted
/// the call; a verifier that is not valid then makes the error RPC_AUTHERROR.
[[nodiscard]] bool rpc_is_accepted(CLIENT* client, const rpc_reply_message& reply);

/// Prepares to repeat the refused call of `client`: falls back to a weaker authentication
/// flavour, unless a call was accepted before, or makes new credentials, at most `*refreshes`
/// times more. False when neither succeeds.
[[nodiscard]] bool rpc_try_again(CLIENT* client, int32_t* refreshes);

/// The operation abort of both transports: does nothing.
void rpc_abort(CLIENT* client);

/// Their operation geterr.
void rpc_geterr(CLIENT* client, rpc_err* error);

/// Their operation freeres.
bool rpc_freeres(CLIENT* client, xdrproc_t results_filter, void* results);

/// The control requests that both transports know; false for all others, and for null where
/// a value is asked for.
bool rpc_control(ClientRecord* record, uint32_t request, void* information);

/// The answer to a control request for `value`: false when `information` is null.
template <typename T>
bool rpc_give(void* information, T value) {
  if (information == nullptr) return false;
  *static_cast<T*>(information) = value;
  return true;
}

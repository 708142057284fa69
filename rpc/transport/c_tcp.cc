#include "rpc/transport/c_tcp.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/svc_time.h"
#include "rpc/auth/a_none.h"
#include "rpc/auth/auth.h"
#include "rpc/auth/auth_methods.h"
#include "rpc/handle/rpcvarp.h"
#include "rpc/messages/rpc_prot.h"
#include "rpc/transport/c_transport.h"
#include "rpc/transport/common.h"
#include "rpc/transport/tcp_connect.h"
#include "rpc/transport/tcp_control.h"
#include "rpc/transport/tcp_io.h"
#include "rpc/transport/tcp_record.h"
#include "rpc/transport/tcp_settings.h"
#include "rpc/xdr/io_switches.h"
#include "rpc/xdr/x_mem.h"
#include "rpc/xdr/x_rec.h"
#include "rpc/xdr/xdr_units.h"

namespace {

// The control requests that a stream gets when the option for one call is armed.
constexpr uint32_t kStreamCallBegins = 0;
constexpr uint32_t kStreamCallEnds = 1;

struct Call {
  unsigned long procedure;
  xdrproc_t arguments_filter;
  void* arguments;
  xdrproc_t results_filter;
  void* results;
};

// The id counts down as a number whose low byte comes first.
void next_transaction(TcpRecord* record) {
  uint32_t id = __builtin_bswap32(xdr_load<uint32_t>(record->header)) - 1;
  xdr_store(record->header, __builtin_bswap32(id));
}

bool encode_call(CLIENT* client, const Call& call) {
  TcpRecord* record = tcp_record_of(client);
  XDR* xdrs = &record->stream;
  auto procedure = static_cast<long>(call.procedure);
  xdrs->operation = xdr_op::kEncode;
  record->error = {};
  next_transaction(record);
  return xdrs->ops->put_bytes(xdrs, record->header, record->header_length) &&
         xdrs->ops->put_long(xdrs, &procedure) && client->auth->ops->marshal(client->auth, xdrs) &&
         (call.arguments_filter == nullptr || call.arguments_filter(xdrs, call.arguments));
}

clnt_stat send_call(CLIENT* client, const Call& call, bool one_way) {
  TcpRecord* record = tcp_record_of(client);
  if (!encode_call(client, call)) {
    // The record ends with what was encoded, so that the next call begins a new one.
    __brix_xdrrec_endofrecord(&record->stream, true);
    if (record->error.status == RPC_SUCCESS) rpc_finish(record, RPC_CANTENCODEARGS);
    return record->error.status;
  }
  bool sent = __brix_xdrrec_endofrecord(&record->stream, !one_way);
  if (sent || record->error.status == RPC_CANCELLED) return record->error.status;
  // A send that ran out of time failed too; it has no error number of the system's.
  int32_t cause = record->error.status == RPC_TIMEDOUT ? ETIMEDOUT : record->error.error_number;
  return rpc_finish(record, RPC_CANTSEND, cause);
}

void release_verifier(rpc_reply_message* reply) {
  free(reply->accepted.verifier.body);
  reply->accepted.verifier = __brix_null_auth;
}

// Reads replies up to that of this call, without its results. Returns the status that
// reading failed with.
clnt_stat read_reply(TcpRecord* record, rpc_reply_message* reply) {
  XDR* xdrs = &record->stream;
  const uint32_t transaction = xdr_load<uint32_t>(record->header);
  xdrs->operation = xdr_op::kDecode;
  for (;;) {
    *reply = {};
    reply->accepted.verifier = __brix_null_auth;
    reply->accepted.results_filter = __brix_xdr_void;
    // The stream is at a record already when the call before gave up waiting for one.
    if (!xdrrec_at_record(xdrs) && !__brix_xdrrec_skiprecord(xdrs)) {
      // The stream refused the input.
      if (record->error.status == RPC_SUCCESS) rpc_finish(record, RPC_CANTRECV, ECONNRESET);
      return record->error.status;
    }
    bool decoded = __brix_xdr_replymsg(xdrs, reply);
    if (record->error.status == RPC_SUCCESS && decoded && reply->transaction == transaction) {
      return RPC_SUCCESS;
    }
    release_verifier(reply);
    if (record->error.status != RPC_SUCCESS) return record->error.status;
  }
}

// Reads the results that follow an accepted reply.
void read_results(TcpRecord* record, const Call& call) {
  XDR* xdrs = &record->stream;
  if (call.results_filter == nullptr || call.results_filter(xdrs, call.results)) return;
  if (record->error.status != RPC_SUCCESS) return;  // reading failed
  if (xdrrec_is_broken(xdrs)) {
    rpc_finish(record, RPC_CANTRECV, ECONNRESET);
  } else {
    rpc_finish(record, RPC_CANTDECODERES);
  }
}

// When the option for one call is armed, the stream is asked once, before replies are read,
// to treat them as those of one call. `*begun` becomes its answer.
void begin_one_call(TcpRecord* record, bool* begun) {
  if (!record->one_call_armed) return;
  *begun = record->stream.ops->control(&record->stream, kStreamCallBegins, nullptr);
  record->one_call_armed = false;
}

// Sends the call and reads its reply, again for as long as a refusal leaves hope.
clnt_stat exchange(CLIENT* client, const Call& call, bool* begun) {
  TcpRecord* record = tcp_record_of(client);
  int32_t refreshes = kRefreshTries;
  for (;;) {
    clnt_stat status = send_call(client, call, false);
    if (status != RPC_SUCCESS) return status;
    begin_one_call(record, begun);
    rpc_reply_message reply;
    status = read_reply(record, &reply);
    if (status != RPC_SUCCESS) return status;
    const bool accepted = rpc_is_accepted(client, reply);
    if (record->error.status == RPC_SUCCESS) read_results(record, call);
    release_verifier(&reply);
    if (accepted || !rpc_try_again(client, &refreshes)) return record->error.status;
  }
}

clnt_stat exchange_to_the_end(CLIENT* client, const Call& call) {
  TcpRecord* record = tcp_record_of(client);
  bool begun = false;
  const clnt_stat status = exchange(client, call, &begun);
  if (begun) record->stream.ops->control(&record->stream, kStreamCallEnds, nullptr);
  record->one_call_armed = false;
  return status;
}

clnt_stat tcp_call(CLIENT* client, unsigned long procedure, xdrproc_t arguments_filter,
                   void* arguments, xdrproc_t results_filter, void* results, timeval timeout) {
  TcpRecord* record = tcp_record_of(client);
  if (!rpc_has_auth(client)) return record->error.status;
  if (xdrrec_is_broken(&record->stream)) return rpc_finish(record, RPC_CANTSEND, EPIPE);
  if (record->wait_state == kWaitOfCall) record->wait = record->waiting.step = timeout;
  const Call call = {procedure, arguments_filter, arguments, results_filter, results};
  clnt_stat status = RPC_SUCCESS;
  if (timerisset(&timeout)) {
    status = exchange_to_the_end(client, call);
  } else {
    const bool one_way = results_filter == nullptr;
    status = send_call(client, call, one_way);
    if (status == RPC_SUCCESS && !one_way) status = rpc_finish(record, RPC_TIMEDOUT);
  }
  // The rest of a record cannot be sent any more; the peer shall not wait for it.
  if (xdrrec_is_broken(&record->stream)) shutdown(record->socket, SHUT_RDWR);
  return status;
}

void close_or_restore(TcpRecord* record) {
  if (record->close_socket && record->socket >= 0) {
    (void)tcp_set_blocking(record, true);
    rpc_close(record->socket);
  } else if (record->original_mode != SocketMode::kUnknown) {
    (void)tcp_set_blocking(record, record->original_mode == SocketMode::kBlocking);
  }
}

void tcp_destroy(CLIENT* client) {
  TcpRecord* record = tcp_record_of(client);
  close_or_restore(record);
  record->stream.ops->destroy(&record->stream);
  free(record);
}

constexpr clnt_ops kTcpOps = {tcp_call,    rpc_abort,   rpc_geterr,
                              rpc_freeres, tcp_destroy, tcp_control};

// Takes the caller's socket, or opens one. False with the creation error set.
bool take_socket(TcpRecord* record, int socket) {
  record->original_mode = SocketMode::kUnknown;
  record->socket = socket;
  record->socket_mode = SocketMode::kUnknown;
  if (socket != -1) return rpc_can_wait_on(socket);
  record->socket = tcp_open_connection(record->server);
  record->socket_mode = record->original_mode = SocketMode::kBlocking;
  record->close_socket = true;
  return record->socket != -1;
}

void encode_header(TcpRecord* record, unsigned long program, unsigned long version) {
  XDR xdrs;
  __brix_xdrmem_create(&xdrs, record->header, sizeof record->header, xdr_op::kEncode);
  rpc_put_call_header(&xdrs, program, version);
  record->header_length = xdrs.ops->get_position(&xdrs);
}

}  // namespace

CLIENT* __brix_clnttcp_create(sockaddr_in* server, unsigned long program, unsigned long version,
                              int* socket, uint32_t send_size, uint32_t receive_size) {
  (void)tcp_blocking_mode();  // both are read from the environment with the first client
  (void)rpc_get_io_switches();
  svc_time_reset();  // connecting is a new piece of work
  c_unique_ptr<TcpRecord> record(c_new<TcpRecord>());
  if (record == nullptr) return rpc_out_of_memory();
  if (!rpc_find_port(server, program, version, IPPROTO_TCP)) return nullptr;
  record->server = *server;
  if (!take_socket(record.get(), *socket)) return nullptr;
  record->auth_methods = rpc_allowed_auth_methods(server);
  encode_header(record.get(), program, version);
  if (!__brix_xdrrec_create(&record->stream, send_size, receive_size, record.get(), tcp_read,
                            tcp_write)) {
    if (record->close_socket) rpc_close(record->socket);
    return rpc_out_of_memory();
  }
  *socket = record->socket;
  CLIENT* client = rpc_complete_client(record.get(), &kTcpOps);
  if (record->close_socket) tcp_control(client, CLSET_NODELAY, client);
  (void)record.release();
  return client;
}

XDR* get_xdr_from_chandle(CLIENT* client) { return &tcp_record_of(client)->stream; }

#include "rpc/transport/c_udp.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/vx_select.h"
#include "rpc/auth/a_none.h"
#include "rpc/auth/auth.h"
#include "rpc/handle/rpcvarp.h"
#include "rpc/messages/rpc_prot.h"
#include "rpc/transport/c_transport.h"
#include "rpc/transport/common.h"
#include "rpc/xdr/buffer_size.h"
#include "rpc/xdr/x_mem.h"

namespace {

constexpr int32_t kRefreshTries = 2;
constexpr long kMicrosecondsPerSecond = 1000000;
constexpr timeval kNotSet = {-1, -1};
constexpr size_t kTransactionSize = 4;  // bytes at the start of calls and replies

struct UdpRecord {
  int32_t socket;
  bool close_socket;  // by destroy
  sockaddr_in server;
  socklen_t server_length;
  timeval retry;
  timeval total;  // kNotSet: each call says its own
  rpc_err error;  // of the last call
  XDR send_stream;
  uint32_t header_end;  // where a call's own part begins in the send buffer
  uint32_t send_size;
  uint32_t receive_size;
  uint8_t* send_buffer;
  bool confirmed;  // once a call was accepted
  // The receive buffer and then the send buffer follow, in the same allocation.
};

UdpRecord* record_of(CLIENT* client) { return static_cast<UdpRecord*>(client->private_data); }
uint8_t* receive_buffer_of(UdpRecord* record) { return reinterpret_cast<uint8_t*>(record + 1); }

bool is_below(timeval left, timeval right) { return timercmp(&left, &right, <); }

timeval sum_of(timeval left, timeval right) {
  left.tv_usec += right.tv_usec;
  left.tv_sec += right.tv_sec + left.tv_usec / kMicrosecondsPerSecond;
  left.tv_usec %= kMicrosecondsPerSecond;
  return left;
}

// --- A call ----------------------------------------------------------------------

// Every way a call can end leaves its error in the record; `detail` is an error number
// or an auth_state.
clnt_stat finish(UdpRecord* record, clnt_stat status, int32_t detail = 0) {
  record->error = {};
  record->error.status = status;
  record->error.error_number = detail;
  return status;
}

// Gives the message in the send buffer another transaction id than it had. The bytes
// count up as a number whose low byte is the first; two of them are enough.
void advance_transaction(uint8_t* id) {
  if (++id[0] == 0) ++id[1];
}

// Writes the call behind the header. False when it does not fit or does not encode.
bool encode_call(CLIENT* client, unsigned long procedure, xdrproc_t filter, void* arguments) {
  UdpRecord* record = record_of(client);
  XDR* xdrs = &record->send_stream;
  auto number = static_cast<long>(procedure);
  xdrs->operation = xdr_op::kEncode;
  xdrs->ops->set_position(xdrs, record->header_end);
  advance_transaction(record->send_buffer);
  return xdrs->ops->put_long(xdrs, &number) && client->auth->ops->marshal(client->auth, xdrs) &&
         filter(xdrs, arguments);
}

bool send_datagram(UdpRecord* record) {
  size_t length = record->send_stream.ops->get_position(&record->send_stream);
  return sendto(record->socket, record->send_buffer, length, 0,
                reinterpret_cast<const sockaddr*>(&record->server),
                record->server_length) == static_cast<ssize_t>(length);
}

int wait_until_readable(int descriptor, timeval time) {
  vx_fd_set readable;
  VX_FD_ZERO_UP_TO(descriptor, &readable);
  VX_FD_SET(descriptor, &readable);
  return vx_select(descriptor + 1, &readable, nullptr, nullptr, &time);
}

// One datagram into the receive buffer; its length, or -1. Never waits, whatever the
// socket's own mode: what made it readable may be gone again.
ssize_t receive_datagram(UdpRecord* record) {
  for (;;) {
    const ssize_t length =
        recv(record->socket, receive_buffer_of(record), record->receive_size, MSG_DONTWAIT);
    if (length != -1 || errno != EINTR) return length;
  }
}

bool answers_call(UdpRecord* record, ssize_t length) {
  return length >= static_cast<ssize_t>(kTransactionSize) &&
         memcmp(receive_buffer_of(record), record->send_buffer, kTransactionSize) == 0;
}

enum class Wait { kReply, kNothing, kFailed };

// Waits up to `interval` for the reply, from the beginning whenever something else
// comes: a signal or a datagram that is not the reply takes nothing off the call's time,
// so while they come more often than the interval a call neither repeats nor ends. It
// is the kernel that measures the interval; no clock that can be set has a part in it.
// With kReply, `*length` bytes are in the receive buffer; with kFailed errno says why.
Wait wait_for_reply(UdpRecord* record, timeval interval, ssize_t* length) {
  for (;;) {
    int ready = wait_until_readable(record->socket, interval);
    if (ready == 0) return Wait::kNothing;
    if (ready < 0) {
      if (errno == EINTR) continue;
      return Wait::kFailed;
    }
    *length = receive_datagram(record);
    if (*length >= 0) {
      if (answers_call(record, *length)) return Wait::kReply;
    } else if (errno != EAGAIN && errno != ENOMEM && errno != EINPROGRESS) {
      return Wait::kFailed;
    }
  }
}

// Sends what is in the send buffer, again and again, until its reply is there.
// `*waited` counts over all attempts of a call.
clnt_stat exchange(UdpRecord* record, timeval limit, timeval* waited, ssize_t* length) {
  timeval interval = timerisset(&record->retry) ? record->retry : limit;
  do {
    if (!send_datagram(record)) return finish(record, RPC_CANTSEND, errno);
    if (!timerisset(&limit)) break;
    Wait outcome = wait_for_reply(record, interval, length);
    if (outcome == Wait::kReply) return RPC_SUCCESS;
    if (outcome == Wait::kFailed) return finish(record, RPC_CANTRECV, errno);
    *waited = sum_of(*waited, interval);
  } while (is_below(*waited, limit));
  return finish(record, RPC_TIMEDOUT);
}

// Puts what the reply of `length` bytes says into the error record. True when the
// server refused the call, so that another attempt may help.
bool read_refusal(CLIENT* client, ssize_t length, xdrproc_t filter, void* results) {
  UdpRecord* record = record_of(client);
  rpc_reply_message reply{};
  reply.accepted.verifier = __brix_null_auth;
  reply.accepted.results = results;
  reply.accepted.results_filter = filter;
  XDR xdrs;
  __brix_xdrmem_create(&xdrs, receive_buffer_of(record), static_cast<int32_t>(length),
                       xdr_op::kDecode);
  bool decoded = __brix_xdr_replymsg(&xdrs, &reply);
  c_unique_ptr<uint8_t> verifier_body(reply.accepted.verifier.body);
  if (!decoded) {
    finish(record, RPC_CANTDECODERES);
    return false;
  }
  __brix_seterr_reply(&reply, &record->error);
  if (record->error.status != RPC_SUCCESS) return true;
  if (!client->auth->ops->validate(client->auth, &reply.accepted.verifier)) {
    finish(record, RPC_AUTHERROR, kAuthInvalidServerVerifier);
  }
  record->confirmed = true;
  return false;
}

clnt_stat udp_call(CLIENT* client, unsigned long procedure, xdrproc_t arguments_filter,
                   void* arguments, xdrproc_t results_filter, void* results, timeval timeout) {
  UdpRecord* record = record_of(client);
  const timeval limit = record->total.tv_usec != kNotSet.tv_usec ? record->total : timeout;
  timeval waited{};
  int32_t refreshes = kRefreshTries;
  if (client->auth == nullptr) return finish(record, RPC_AUTHERROR, kAuthFailed);
  if (client->auth->ops->needs_refresh(client->auth, record->confirmed, client) &&
      !client->auth->ops->refresh(client->auth)) {
    return record->error.status;
  }
  for (;;) {
    if (!encode_call(client, procedure, arguments_filter, arguments)) {
      return finish(record, RPC_CANTENCODEARGS);
    }
    ssize_t length = 0;
    clnt_stat status = exchange(record, limit, &waited, &length);
    if (status != RPC_SUCCESS) return status;
    if (!read_refusal(client, length, results_filter, results) ||
        !rpc_try_again(client, record->error, record->confirmed, &refreshes)) {
      return record->error.status;
    }
  }
}

// --- The other operations --------------------------------------------------------

void udp_abort(CLIENT* /*client*/) {}

void udp_geterr(CLIENT* client, rpc_err* error) { *error = record_of(client)->error; }

bool udp_freeres(CLIENT* client, xdrproc_t results_filter, void* results) {
  XDR* xdrs = &record_of(client)->send_stream;
  xdrs->operation = xdr_op::kFree;
  return results_filter(xdrs, results);
}

void udp_destroy(CLIENT* client) {
  UdpRecord* record = record_of(client);
  if (record->close_socket) rpc_close(record->socket);
  free(record);
  free(client);
}

bool udp_control(CLIENT* client, uint32_t request, void* information) {
  UdpRecord* record = record_of(client);
  if (information == nullptr) return false;
  switch (request) {
    case CLSET_TIMEOUT:
      record->total = *static_cast<const timeval*>(information);
      return true;
    case CLGET_TIMEOUT:
      *static_cast<timeval*>(information) = record->total;
      return true;
    case CLGET_SERVER_ADDR:
      *static_cast<sockaddr_in*>(information) = record->server;
      return true;
    case CLSET_RETRY_TIMEOUT:
      record->retry = *static_cast<const timeval*>(information);
      return true;
    case CLGET_RETRY_TIMEOUT:
      *static_cast<timeval*>(information) = record->retry;
      return true;
    case CLGET_FD:
      *static_cast<int*>(information) = record->socket;
      return true;
    case CLSET_FD_CLOSE:
    case CLSET_FD_NCLOSE:
      record->close_socket = request == CLSET_FD_CLOSE;
      return true;
    case CLSET_AUTH_CONFIRMED:
      record->confirmed = true;
      return true;
    case CLGET_AUTH_CONFIRMED:
      *static_cast<int32_t*>(information) = record->confirmed ? 1 : 0;
      return true;
    default:
      return false;
  }
}

constexpr clnt_ops kUdpOps = {udp_call,    udp_abort,   udp_geterr,
                              udp_freeres, udp_destroy, udp_control};

// --- Creation --------------------------------------------------------------------

// Takes the caller's socket, or opens one. False with the creation error set.
bool take_socket(UdpRecord* record, int* socket) {
  if (*socket == -1) {
    *socket = rpc_open_client_socket(SOCK_DGRAM | SOCK_NONBLOCK, IPPROTO_UDP);
    record->close_socket = true;
  }
  record->socket = *socket;
  return *socket != -1 && rpc_can_wait_on(*socket);
}

// A zeroed record with its buffers, of which only what was written is ever read.
c_unique_ptr<UdpRecord> make_record(uint32_t send_size, uint32_t receive_size) {
  size_t bytes = sizeof(UdpRecord) + receive_size + send_size;
  c_unique_ptr<UdpRecord> record(static_cast<UdpRecord*>(malloc(bytes)));
  if (record == nullptr) return nullptr;
  *record = {};
  record->send_size = send_size;
  record->receive_size = receive_size;
  record->send_buffer = receive_buffer_of(record.get()) + receive_size;
  return record;
}

}  // namespace

CLIENT* __brix_clntudp_create(sockaddr_in* server, unsigned long program, unsigned long version,
                              timeval retry, int* socket) {
  return __brix_clntudp_bufcreate(server, program, version, retry, socket, kUdpMessageSize,
                                  kUdpMessageSize);
}

CLIENT* __brix_clntudp_bufcreate(sockaddr_in* server, unsigned long program, unsigned long version,
                                 timeval retry, int* socket, uint32_t send_size,
                                 uint32_t receive_size) {
  c_unique_ptr<CLIENT> client(static_cast<CLIENT*>(calloc(1, sizeof(CLIENT))));
  c_unique_ptr<UdpRecord> record =
      make_record(rpc_buffer_size(send_size), rpc_buffer_size(receive_size));
  if (client == nullptr || record == nullptr) {
    errno = ENOMEM;
    rpc_set_createerr(RPC_SYSTEMERROR, ENOMEM);
    return nullptr;
  }
  if (!rpc_find_port(server, program, version, IPPROTO_UDP)) return nullptr;
  record->server = *server;
  record->server_length = sizeof record->server;
  record->retry = retry;
  record->total = kNotSet;
  __brix_xdrmem_create(&record->send_stream, record->send_buffer,
                       static_cast<int32_t>(record->send_size), xdr_op::kEncode);
  rpc_put_call_header(&record->send_stream, program, version);
  record->header_end = record->send_stream.ops->get_position(&record->send_stream);
  if (!take_socket(record.get(), socket)) return nullptr;
  client->ops = &kUdpOps;
  client->private_data = record.release();
  client->auth = __brix_authnone_create();
  return client.release();
}

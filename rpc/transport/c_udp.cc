#include "rpc/transport/c_udp.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "liblocal/base/c_memory.h"
#include "rpc/auth/auth.h"
#include "rpc/messages/rpc_prot.h"
#include "rpc/transport/c_transport.h"
#include "rpc/transport/common.h"
#include "rpc/xdr/buffer_size.h"
#include "rpc/xdr/x_mem.h"

namespace {

constexpr timeval kNotSet = {-1, -1};
constexpr size_t kTransactionSize = 4;  // bytes at the start of calls and replies

struct UdpRecord : ClientRecord {
  timeval retry;
  timeval total;        // kNotSet: each call says its own
  uint32_t header_end;  // where a call's own part begins in the send buffer
  uint32_t receive_size;
  uint8_t* receive_buffer;
  // The send buffer and then the receive buffer follow, in the same allocation.
};

UdpRecord* record_of(CLIENT* client) { return static_cast<UdpRecord*>(rpc_record_of(client)); }
uint8_t* send_buffer_of(UdpRecord* record) { return reinterpret_cast<uint8_t*>(record + 1); }

// Gives the message in the send buffer another transaction id. Its first two bytes count
// up, the low one first.
void advance_transaction(uint8_t* id) {
  if (++id[0] == 0) ++id[1];
}

// Writes the call behind the header. False when it does not fit or does not encode.
bool encode_call(CLIENT* client, unsigned long procedure, xdrproc_t filter, void* arguments) {
  UdpRecord* record = record_of(client);
  XDR* xdrs = &record->stream;
  auto number = static_cast<long>(procedure);
  xdrs->operation = xdr_op::kEncode;
  xdrs->ops->set_position(xdrs, record->header_end);
  advance_transaction(send_buffer_of(record));
  return xdrs->ops->put_long(xdrs, &number) && client->auth->ops->marshal(client->auth, xdrs) &&
         (filter == nullptr || filter(xdrs, arguments));
}

bool send_datagram(UdpRecord* record) {
  size_t length = record->stream.ops->get_position(&record->stream);
  return sendto(record->socket, send_buffer_of(record), length, 0,
                reinterpret_cast<const sockaddr*>(&record->server),
                sizeof record->server) == static_cast<ssize_t>(length);
}

// Receives a datagram into the receive buffer. Returns its length, or -1. It does not wait
// when the datagram that made the socket readable is gone again.
ssize_t receive_datagram(UdpRecord* record) {
  for (;;) {
    const ssize_t length =
        recv(record->socket, record->receive_buffer, record->receive_size, MSG_DONTWAIT);
    if (length != -1 || errno != EINTR) return length;
  }
}

bool answers_call(UdpRecord* record, ssize_t length) {
  return length >= static_cast<ssize_t>(kTransactionSize) &&
         memcmp(record->receive_buffer, send_buffer_of(record), kTransactionSize) == 0;
}

enum class Wait { kReply, kNothing, kFailed };

// Waits up to `interval` for the reply. A signal and a datagram that is not the reply begin
// the interval anew, so while they come more often than that a call neither repeats nor
// ends. The kernel measures the interval: setting a clock does not change it. With kReply,
// `*length` bytes are in the receive buffer; with kFailed errno says why.
Wait wait_for_reply(UdpRecord* record, timeval interval, ssize_t* length) {
  for (;;) {
    const int ready = rpc_wait_for(record->socket, POLLIN, &interval);
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

// Sends the send buffer at every interval until its reply is there. `*waited` counts over
// all attempts of a call.
clnt_stat exchange(UdpRecord* record, timeval limit, timeval* waited, ssize_t* length) {
  const timeval interval = rpc_normalized(timerisset(&record->retry) ? record->retry : limit);
  do {
    if (!send_datagram(record)) return rpc_finish(record, RPC_CANTSEND, errno);
    if (!timerisset(&limit)) break;
    Wait outcome = wait_for_reply(record, interval, length);
    if (outcome == Wait::kReply) return RPC_SUCCESS;
    if (outcome == Wait::kFailed) return rpc_finish(record, RPC_CANTRECV, errno);
    timeradd(waited, &interval, waited);
  } while (timercmp(waited, &limit, <));
  return rpc_finish(record, RPC_TIMEDOUT);
}

// Reads the reply of `length` bytes into the error of the record and the results. True when
// the server refused the call, so that another attempt may help.
bool read_refusal(CLIENT* client, ssize_t length, xdrproc_t filter, void* results) {
  UdpRecord* record = record_of(client);
  rpc_reply_message reply{};
  reply.accepted.verifier = __brix_null_auth;
  reply.accepted.results = results;
  reply.accepted.results_filter = filter != nullptr ? filter : __brix_xdr_void;
  XDR xdrs;
  __brix_xdrmem_create(&xdrs, record->receive_buffer, static_cast<int32_t>(length),
                       xdr_op::kDecode);
  const bool decoded = __brix_xdr_replymsg(&xdrs, &reply);
  c_unique_ptr<uint8_t> verifier_body(reply.accepted.verifier.body);
  if (decoded) return !rpc_is_accepted(client, reply);
  rpc_finish(record, RPC_CANTDECODERES);
  return false;
}

clnt_stat udp_call(CLIENT* client, unsigned long procedure, xdrproc_t arguments_filter,
                   void* arguments, xdrproc_t results_filter, void* results, timeval timeout) {
  UdpRecord* record = record_of(client);
  const timeval limit = record->total.tv_usec != kNotSet.tv_usec ? record->total : timeout;
  timeval waited{};
  int32_t refreshes = kRefreshTries;
  if (!rpc_has_auth(client)) return record->error.status;
  for (;;) {
    if (!encode_call(client, procedure, arguments_filter, arguments)) {
      return rpc_finish(record, RPC_CANTENCODEARGS);
    }
    ssize_t length = 0;
    clnt_stat status = exchange(record, limit, &waited, &length);
    if (status != RPC_SUCCESS) return status;
    if (!read_refusal(client, length, results_filter, results) ||
        !rpc_try_again(client, &refreshes)) {
      return record->error.status;
    }
  }
}

void udp_destroy(CLIENT* client) {
  UdpRecord* record = record_of(client);
  if (record->close_socket) rpc_close(record->socket);
  free(record);
}

bool udp_control(CLIENT* client, uint32_t request, void* information) {
  UdpRecord* record = record_of(client);
  if (information == nullptr) return false;
  switch (request) {
    case CLSET_TIMEOUT:
      record->total = *static_cast<const timeval*>(information);
      return true;
    case CLGET_TIMEOUT:
      return rpc_give(information, record->total);
    case CLSET_RETRY_TIMEOUT:
      record->retry = *static_cast<const timeval*>(information);
      return true;
    case CLGET_RETRY_TIMEOUT:
      return rpc_give(information, record->retry);
    default:
      return rpc_control(record, request, information);
  }
}

constexpr clnt_ops kUdpOps = {udp_call,    rpc_abort,   rpc_geterr,
                              rpc_freeres, udp_destroy, udp_control};

// Takes the caller's socket, or opens one. False with the creation error set.
bool take_socket(UdpRecord* record, int* socket) {
  if (*socket == -1) {
    *socket = rpc_open_client_socket(SOCK_DGRAM | SOCK_NONBLOCK, IPPROTO_UDP);
    record->close_socket = true;
  }
  record->socket = *socket;
  return *socket != -1 && rpc_can_wait_on(*socket);
}

// A record with its buffers, of which only what was written is ever read. Null without
// memory.
UdpRecord* new_record(uint32_t send_size, uint32_t receive_size) {
  const uint64_t bytes = sizeof(UdpRecord) + uint64_t{receive_size} + send_size;
  if (bytes > PTRDIFF_MAX) return nullptr;
  auto* record = static_cast<UdpRecord*>(malloc(static_cast<size_t>(bytes)));
  if (record == nullptr) return nullptr;
  *record = {};
  record->receive_size = receive_size;
  record->receive_buffer = send_buffer_of(record) + send_size;
  __brix_xdrmem_create(&record->stream, send_buffer_of(record), static_cast<int32_t>(send_size),
                       xdr_op::kEncode);
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
  c_unique_ptr<UdpRecord> record(
      new_record(rpc_buffer_size(send_size), rpc_buffer_size(receive_size)));
  if (record == nullptr) return rpc_out_of_memory();
  if (!rpc_find_port(server, program, version, IPPROTO_UDP)) return nullptr;
  record->server = *server;
  record->retry = retry;
  record->total = kNotSet;
  rpc_put_call_header(&record->stream, program, version);
  record->header_end = record->stream.ops->get_position(&record->stream);
  if (!take_socket(record.get(), socket)) return nullptr;
  return rpc_complete_client(record.release(), &kUdpOps);
}

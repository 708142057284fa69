#include "rpc/transport/tcp_control.h"

#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstdint>

#include "rpc/transport/tcp_record.h"
#include "rpc/transport/tcp_settings.h"

namespace {

constexpr timeval kNoLimit = {86400, 0};

bool set_timeout(TcpRecord* record, const void* information) {
  record->wait = information != nullptr ? *static_cast<const timeval*>(information) : kNoLimit;
  record->wait_state = information != nullptr ? kWaitSet : kWaitNoLimit;
  if (record->waiting.function == nullptr) record->waiting.step = record->wait;
  return true;
}

bool set_wait_function(TcpRecord* record, const void* information) {
  record->waiting = information != nullptr ? *static_cast<const rpc_wait*>(information)
                                           : rpc_wait{record->wait, nullptr, nullptr};
  return true;
}

bool set_wait_state(TcpRecord* record, const int32_t* state) {
  if (state == nullptr || *state < kWaitOfCall || *state > kWaitNoLimit) return false;
  record->wait_state = static_cast<rpc_wait_state>(*state);
  return true;
}

bool set_option(const TcpRecord* record, int level, int option, int value) {
  return setsockopt(record->socket, level, option, &value, sizeof value) == 0;
}

// The information pointer itself holds the value.
bool set_buffer_size(const TcpRecord* record, int option, const void* information) {
  if (tcp_keeps_socket_buffers()) return true;
  auto value = static_cast<int>(reinterpret_cast<intptr_t>(information));
  return set_option(record, SOL_SOCKET, option, value);
}

bool get_buffer_size(const TcpRecord* record, int option, void* information) {
  socklen_t length = sizeof(int);
  return getsockopt(record->socket, SOL_SOCKET, option, information, &length) == 0;
}

// Requests that want a value, or a place for it.
bool value_request(TcpRecord* record, uint32_t request, void* information) {
  switch (request) {
    case CLGET_TIMEOUT:
      return rpc_give(information, record->wait);
    case CLGET_RECEIVE_SIZE:
      return get_buffer_size(record, SO_RCVBUF, information);
    case CLGET_SEND_SIZE:
      return get_buffer_size(record, SO_SNDBUF, information);
    case CLGET_WAIT_FUNCTION:
      return rpc_give(information, record->waiting);
    case CLGET_STREAM:
      return rpc_give(information, &record->stream);
    case CLGET_ONE_CALL_ENABLED:
      return rpc_give<int32_t>(information, record->one_call_enabled ? 1 : 0);
    case CLGET_AUTH_METHODS:
      return rpc_give(information, record->auth_methods);
    case CLSET_AUTH_METHODS:
      if (information == nullptr) return false;
      record->auth_methods = *static_cast<const uint32_t*>(information);
      return true;
    case CLGET_WAIT_STATE:
      return rpc_give<int32_t>(information, record->wait_state);
    case CLSET_WAIT_STATE:
      return set_wait_state(record, static_cast<const int32_t*>(information));
    default:
      return rpc_control(record, request, information);
  }
}

}  // namespace

bool tcp_control(CLIENT* client, uint32_t request, void* information) {
  TcpRecord* record = tcp_record_of(client);
  // These look at whether there is information, or take something in its place.
  const bool on = information != nullptr;
  switch (request) {
    case CLSET_TIMEOUT:
      return set_timeout(record, information);
    case CLSET_RECEIVE_SIZE:
      return set_buffer_size(record, SO_RCVBUF, information);
    case CLSET_SEND_SIZE:
      return set_buffer_size(record, SO_SNDBUF, information);
    case CLSET_WAIT_FUNCTION:
      return set_wait_function(record, information);
    case CLSET_WATCH_INPUT:
      record->watch_input = on;
      return true;
    case CLSET_NODELAY:
      return set_option(record, IPPROTO_TCP, TCP_NODELAY, on ? 1 : 0);
    case CLSET_ONE_CALL:
      if (on && record->one_call_enabled) record->one_call_armed = true;
      return true;
    case CLSET_ONE_CALL_ENABLED:
      if (on) record->one_call_enabled = true;
      return true;
    default:
      return value_request(record, request, information);
  }
}

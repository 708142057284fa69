// Clients: a handle through which the procedures of one remote program and version
// are called. A transport makes it (c_udp.h, c_tcp.h, or c_gen.h, which chooses one)
// and provides its operations. rpcvarp.h has what the runtime keeps for clients, c_perror.h
// the texts of their failures.
//
// Thread safety: a handle is used by one thread at a time.
#pragma once

#include <sys/time.h>

#include <cstdint>

#include "rpc/messages/rpc_err.h"
#include "rpc/xdr/xdr.h"

struct AUTH;
struct CLIENT;

/// Control requests. A transport answers false to those it does not know.
enum clnt_request : uint32_t {
  CLSET_TIMEOUT = 1,         //!< timeval: total time of a call
  CLGET_TIMEOUT = 2,         //!< timeval
  CLGET_SERVER_ADDR = 3,     //!< sockaddr_in
  CLSET_RETRY_TIMEOUT = 4,   //!< timeval: UDP, between two sendings
  CLGET_RETRY_TIMEOUT = 5,   //!< timeval
  CLGET_FD = 6,              //!< int
  CLSET_FD_CLOSE = 8,        //!< destroy closes the socket
  CLSET_FD_NCLOSE = 9,       //!< destroy leaves it open
  CLGET_RECEIVE_SIZE = 20,   //!< int: the socket's buffers
  CLSET_RECEIVE_SIZE = 21,   //!< the size itself in place of the pointer
  CLGET_SEND_SIZE = 22,      //!< int
  CLSET_SEND_SIZE = 23,      //!< as CLSET_RECEIVE_SIZE
  CLSET_WAIT_FUNCTION = 24,  //!< rpc_wait (c_tcp.h); null: none
  CLGET_WAIT_FUNCTION = 25,  //!< rpc_wait
  CLSET_WATCH_INPUT = 26,    //!< on unless the pointer is null, as the next two
  CLSET_AUTH_CONFIRMED = 27,
  CLSET_NODELAY = 28,
  CLGET_AUTH_CONFIRMED = 29,  //!< int32_t
  CLGET_STREAM = 30,          //!< XDR*
  CLSET_ONE_CALL = 31,  //!< unless null: the stream's control gets the next call's begin and end
  CLSET_ONE_CALL_ENABLED = 32,  //!< unless null: CLSET_ONE_CALL works from now on
  CLGET_ONE_CALL_ENABLED = 33,  //!< int32_t
  CLGET_AUTH_METHODS = 34,      //!< uint32_t: mask of allowed methods
  CLSET_AUTH_METHODS = 35,      //!< uint32_t
  CLGET_WAIT_STATE = 36,        //!< int32_t: rpc_wait_state (c_tcp.h)
  CLSET_WAIT_STATE = 37,        //!< int32_t: rpc_wait_state
};

constexpr uint32_t kAuthMethodsNone = 1;      //!< in a mask of allowed methods: flavour none
constexpr uint32_t kAuthMethodsSystem = 2;    //!< flavour system
constexpr uint32_t kAuthMethodsDefault = 79;  //!< the mask of a transport that keeps none

/// What a transport provides, in slot order.
struct clnt_ops {
  /// Calls `procedure` with `arguments` and decodes into `results`; a null filter means none.
  /// `timeout` is the limit unless CLSET_TIMEOUT set one; the transport says how it counts.
  /// What decoding allocated is released with freeres.
  clnt_stat (*call)(CLIENT* client, unsigned long procedure, xdrproc_t arguments_filter,
                    void* arguments, xdrproc_t results_filter, void* results, timeval timeout);
  /// Does nothing.
  void (*abort)(CLIENT* client);
  /// Copies the outcome of the last call.
  void (*geterr)(CLIENT* client, rpc_err* error);
  /// Releases what decoding the results of a call allocated.
  bool (*freeres)(CLIENT* client, xdrproc_t results_filter, void* results);
  /// Frees the client, but not its authentication handle.
  void (*destroy)(CLIENT* client);
  /// Does a clnt_request; false for one that the transport does not know.
  bool (*control)(CLIENT* client, uint32_t request, void* information);
};

/// One client; made and freed by its transport.
struct CLIENT {
  AUTH* auth;           //!< null: none, and calls fail
  const clnt_ops* ops;  //!< of the transport
  void* private_data;   //!< the transport's own record
};

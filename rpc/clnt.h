// Clients: a handle through which the procedures of one remote program and version
// are called. A transport makes it (c_udp.h, c_tcp.h, or c_gen.h, which chooses one)
// and provides its operations.
//
// Thread safety: a handle is used by one thread at a time.
#pragma once

#include <sys/time.h>

#include <cstdint>

#include "rpc/rpc_msg.h"
#include "rpc/xdr.h"

struct AUTH;
struct CLIENT;

/// The status of a call, and of making a client. c_perror.h has the texts.
enum clnt_stat : int32_t {
  RPC_SUCCESS = 0,
  RPC_CANTENCODEARGS = 1,
  RPC_CANTDECODERES = 2,
  RPC_CANTSEND = 3,
  RPC_CANTRECV = 4,
  RPC_TIMEDOUT = 5,
  RPC_VERSMISMATCH = 6,
  RPC_AUTHERROR = 7,
  RPC_PROGUNAVAIL = 8,
  RPC_PROGVERSMISMATCH = 9,
  RPC_PROCUNAVAIL = 10,
  RPC_CANTDECODEARGS = 11,
  RPC_SYSTEMERROR = 12,
  RPC_UNKNOWNHOST = 13,
  RPC_PMAPFAILURE = 14,
  RPC_PROGNOTREGISTERED = 15,
  RPC_FAILED = 16,
  RPC_UNKNOWNPROTO = 17,
  RPC_INTR = 18,
  RPC_UNKNOWNADDR = 19,
  RPC_TLIERROR = 20,
  RPC_NOBROADCAST = 21,
  RPC_N2AXLATEFAILURE = 22,
  RPC_UDERROR = 23,
  RPC_INPROGRESS = 24,
  RPC_STALERACHANDLE = 25,
  RPC_INVALIDHANDLE = 26,
  RPC_CANCELLED = 27,
};

/// Two words about an unforeseen reply.
struct rpc_err_words {
  long s1;
  long s2;
};

/// What a call came to. The status decides which detail counts; where there is none,
/// it is zero.
struct rpc_err {
  clnt_stat status;
  union {
    rpc_err_words other;    // RPC_FAILED; the largest, so that {} clears all
    int32_t error_number;   // RPC_CANTSEND, RPC_CANTRECV, RPC_SYSTEMERROR: of the system
    int32_t why;            // RPC_AUTHERROR: auth_state
    int32_t first_word;     // of any detail
    rpc_versions versions;  // RPC_VERSMISMATCH, RPC_PROGVERSMISMATCH
  };
};

/// Why a client could not be made: the status, and its cause (an error number for
/// RPC_SYSTEMERROR, the failed call's status for RPC_PMAPFAILURE).
struct rpc_createerr {
  clnt_stat status;
  rpc_err cause;
};

/// Control requests. A transport answers false to those it does not know.
enum clnt_request : uint32_t {
  CLSET_TIMEOUT = 1,        // timeval: total time of a call
  CLGET_TIMEOUT = 2,        // timeval
  CLGET_SERVER_ADDR = 3,    // sockaddr_in
  CLSET_RETRY_TIMEOUT = 4,  // timeval: UDP, between two sendings
  CLGET_RETRY_TIMEOUT = 5,  // timeval
  CLGET_FD = 6,             // int
  CLSET_FD_CLOSE = 8,       // destroy closes the socket
  CLSET_FD_NCLOSE = 9,      // destroy leaves it open
  CLGET_RECEIVE_SIZE = 20,  // int: the socket's buffers
  CLSET_RECEIVE_SIZE = 21,  // the size itself in place of the pointer
  CLGET_SEND_SIZE = 22,
  CLSET_SEND_SIZE = 23,
  CLSET_WAIT_FUNCTION = 24,
  CLGET_WAIT_FUNCTION = 25,
  CLSET_WATCH_INPUT = 26,  // on unless the pointer is null, as the next two
  CLSET_AUTH_CONFIRMED = 27,
  CLSET_NODELAY = 28,
  CLGET_AUTH_CONFIRMED = 29,  // int32_t
  CLGET_STREAM = 30,          // XDR*
  CLSET_ONE_CALL = 31,
  CLSET_ONE_CALL_ENABLED = 32,
  CLGET_ONE_CALL_ENABLED = 33,  // int32_t
  CLGET_AUTH_METHODS = 34,      // uint32_t: mask of allowed methods
  CLSET_AUTH_METHODS = 35,      // uint32_t
  CLGET_WAIT_STATE = 36,        // int32_t
  CLSET_WAIT_STATE = 37,        // int32_t
  CLSET_TRACING = 69,
};

// The mask of allowed authentication methods.
constexpr uint32_t kAuthMethodsNone = 1;
constexpr uint32_t kAuthMethodsSystem = 2;
constexpr uint32_t kAuthMethodsOwn = 4;
constexpr uint32_t kAuthMethodsDefault = 79;  // of a transport that keeps no mask

/// What a transport provides, in slot order.
struct clnt_ops {
  /// Calls `procedure` with `arguments`, waiting at most `timeout`, and decodes into
  /// `results`. What decoding allocated is released with freeres.
  clnt_stat (*call)(CLIENT* client, unsigned long procedure, xdrproc_t arguments_filter,
                    void* arguments, xdrproc_t results_filter, void* results, timeval timeout);
  void (*abort)(CLIENT* client);
  /// Copies what the last call came to.
  void (*geterr)(CLIENT* client, rpc_err* error);
  /// Releases what decoding the results of a call allocated.
  bool (*freeres)(CLIENT* client, xdrproc_t results_filter, void* results);
  /// Frees the client, but not its authentication handle.
  void (*destroy)(CLIENT* client);
  bool (*control)(CLIENT* client, uint32_t request, void* information);
};

struct CLIENT {
  AUTH* auth;  // null: none, and calls fail
  const clnt_ops* ops;
  void* private_data;  // the transport's own record
};

// The outcome of a call: its status, and the detail that belongs to it.
#pragma once

#include <cstdint>

#include "rpc/messages/rpc_msg.h"

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
  long s1;  //!< the reply state
  long s2;  //!< the accept or reject state
};

/// The outcome of a call. A detail that the status does not have is zero.
struct rpc_err {
  clnt_stat status;  //!< decides which detail counts
  union {
    rpc_err_words other;    //!< RPC_FAILED; the largest, so that {} clears all
    int32_t error_number;   //!< RPC_CANTSEND, RPC_CANTRECV, RPC_SYSTEMERROR: of the system
    int32_t why;            //!< RPC_AUTHERROR: auth_state
    rpc_versions versions;  //!< RPC_VERSMISMATCH, RPC_PROGVERSMISMATCH
  };
};

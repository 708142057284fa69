// RPC messages, version 2 (RFC 5531, section 9): what a call and its reply look like, and
// what a reply means. This header has the records: the authentication field, the call and
// the reply. rpc_prot.h and rpc_cmsg.h encode and decode them; rpc_err.h has the
// outcome of a call.
#pragma once

#include <cstdint>

#include "rpc/xdr/xdr.h"

constexpr unsigned long kRpcVersion = 2;
constexpr uint32_t kMaxAuthBytes = 32744;  //!< body of a credential or verifier; RFC 5531 has 400

/// Which of the two a message is.
enum rpc_direction : int32_t { kRpcCall = 0, kRpcReply = 1 };
/// Whether a call was accepted at all.
enum rpc_reply_state : int32_t { kReplyAccepted = 0, kReplyDenied = 1 };

/// The outcome of a call that was accepted.
enum rpc_accept_state : int32_t {
  kAcceptSuccess = 0,
  kAcceptProgramUnavailable = 1,
  kAcceptProgramMismatch = 2,
  kAcceptProcedureUnavailable = 3,
  kAcceptGarbageArguments = 4,
  kAcceptSystemError = 5,
};

/// Why a call was denied.
enum rpc_reject_state : int32_t { kRejectRpcMismatch = 0, kRejectAuthError = 1 };

/// Why an authentication was refused.
enum auth_state : int32_t {
  kAuthOk = 0,
  kAuthBadCredential = 1,
  kAuthRejectedCredential = 2,
  kAuthBadVerifier = 3,
  kAuthRejectedVerifier = 4,
  kAuthTooWeak = 5,
  kAuthInvalidServerVerifier = 6,
  kAuthFailed = 7,
};

/// The numbers of the flavours; others exist.
enum auth_flavour : int32_t { kAuthNone = 0, kAuthSystem = 1, kAuthShort = 2 };

/// A credential or a verifier. Who frees the body is up to the holder; one
/// that decoding made is freed by the free operation of its filter.
struct opaque_auth {
  int32_t flavour;  //!< auth_flavour, or another
  uint8_t* body;    //!< null when it is empty
  uint32_t length;  //!< at most kMaxAuthBytes
};

/// Flavour none with an empty body.
inline constexpr opaque_auth __brix_null_auth = {kAuthNone, nullptr, 0};

/// The header of a call; its arguments come next on the stream.
struct rpc_call_message {
  unsigned long transaction;  //!< 32 bits on the wire, as the other longs
  int32_t direction;          //!< kRpcCall
  unsigned long rpc_version;  //!< kRpcVersion
  unsigned long program;      //!< which is called
  unsigned long version;      //!< of the program
  unsigned long procedure;    //!< of the version
  opaque_auth credential;     //!< who calls
  opaque_auth verifier;       //!< proves the credential
};

/// The lowest and the highest version that a server knows.
struct rpc_versions {
  unsigned long low;   //!< the lowest
  unsigned long high;  //!< the highest
};

/// The reply to a call that was accepted.
struct rpc_accepted_reply {
  opaque_auth verifier;      //!< of the server
  int32_t state;             //!< rpc_accept_state
  void* results;             //!< kAcceptSuccess: where the results are stored; set before decoding
  xdrproc_t results_filter;  //!< kAcceptSuccess: by which filter; set before decoding, not null
  rpc_versions versions;     //!< kAcceptProgramMismatch
};

/// The reply to a call that was denied.
struct rpc_denied_reply {
  int32_t state;          //!< rpc_reject_state
  rpc_versions versions;  //!< kRejectRpcMismatch
  int32_t why;            //!< kRejectAuthError: auth_state
};

/// A reply.
struct rpc_reply_message {
  unsigned long transaction;    //!< 32 bits on the wire
  int32_t direction;            //!< kRpcReply
  int32_t state;                //!< rpc_reply_state: which of the two is filled in
  rpc_accepted_reply accepted;  //!< kReplyAccepted
  rpc_denied_reply denied;      //!< kReplyDenied
};

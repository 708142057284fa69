// Authentication of clients (RFC 5531, section 8.2). This header has the handles: what
// writes the credential and verifier of each call of a client and checks the verifier of
// each reply. Flavours are made by a_none.h and a_unix.h; auth_choice.h chooses among them,
// and auth_methods.h knows which of them a server takes.
//
// Thread safety: a handle is used by one thread at a time, unless its flavour says
// otherwise.
#pragma once

#include <cstdint>

#include "rpc/messages/rpc_msg.h"
#include "rpc/xdr/xdr.h"

struct AUTH;
struct CLIENT;

constexpr uint32_t kAuthGetMethod = 2;  //!< control request: the number of the method

constexpr int32_t kAuthMethodNone = 1;    //!< what kAuthGetMethod stores: flavour none
constexpr int32_t kAuthMethodSystem = 2;  //!< flavour system

/// What a flavour provides, in slot order.
struct auth_ops {
  /// Moves to the next verifier.
  void (*next_verifier)(AUTH* auth);
  /// Puts credential and verifier on the stream.
  bool (*marshal)(AUTH* auth, XDR* xdrs);
  /// Whether the verifier of a reply is what it should be; may take over what it says.
  bool (*validate)(AUTH* auth, const opaque_auth* verifier);
  /// Makes new credentials after a refusal; false when there are no others.
  bool (*refresh)(AUTH* auth);
  /// Whether a refresh is needed before a call of `client` is encoded. `confirmed`: its
  /// server has accepted a call before.
  bool (*needs_refresh)(AUTH* auth, bool confirmed, CLIENT* client);
  /// Frees the handle and all that it owns.
  void (*destroy)(AUTH* auth);
  /// Answers false to a request it does not know. kAuthGetMethod stores an int32_t.
  bool (*control)(AUTH* auth, uint32_t request, void* information);
};

/// How the caller of a client's calls shows who it is.
struct AUTH {
  opaque_auth credential;
  opaque_auth verifier;
  uint8_t key[8];  //!< for flavours that encrypt
  const auth_ops* ops;
  void* private_data;  //!< the flavour's own record
};

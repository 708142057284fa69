// Texts of RPC failures.
//
// A text that is built (all but __brix_clnt_sperrno's) stays valid until the calling
// thread builds the next one; it is at most 18431 bytes long and ends in a newline.
// Those that print write to standard error. Thread safe.
#pragma once

#include <cstdint>

#include "liblocal/base/liblvarp.h"
#include "rpc/handle/clnt.h"

/// What the call status `code` means; "Unknown error code" for one that is none.
const char* __brix_clnt_sperrno(int32_t code);

/// The text of `error`: "prefix: ", its status and its detail. `prefix` may be null.
char* clnt_sperror_rpc_err(const rpc_err* error, const char* prefix);

/// clnt_sperror_rpc_err of the last call of `client`.
char* __brix_clnt_sperror(CLIENT* client, const char* prefix);

/// Prints __brix_clnt_sperror.
void __brix_clnt_perror(CLIENT* client, const char* prefix);

/// Prints "RPC: " and what `code` means.
void __brix_clnt_perrno(int32_t code);

/// The text of the calling thread's creation error: "prefix: ", its status and its
/// cause.
char* __brix_clnt_spcreateerror(const char* prefix);

/// Prints __brix_clnt_spcreateerror.
void __brix_clnt_pcreateerror(const char* prefix);

/// Makes the last call's error of `client` the thread's error record (errinfo.h), of
/// the type RPC with the call status as its code and clnt_sperror_rpc_err as its
/// text. Returns the record; null, with nothing set, when there is no memory for it.
vx_error_record* clnt_geterrinfo(CLIENT* client, const char* prefix);

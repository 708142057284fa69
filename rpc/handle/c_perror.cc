#include "rpc/handle/c_perror.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "liblocal/messages/catgets.h"
#include "liblocal/messages/err_tables.h"
#include "liblocal/messages/errinfo.h"
#include "liblocal/text/vxprint.h"
#include "rpc/handle/rpcvarp.h"

namespace {

constexpr const char* kAuthStateTexts[] = {
    "Authentication OK",       "Invalid client credential",  "Server rejected credential",
    "Invalid client verifier", "Server rejected verifier",   "Client credential too weak",
    "Invalid server verifier", "Failed (unspecified error)",
};

// The calling thread's text while it is built: what does not fit is cut.
class ThreadText {
 public:
  ThreadText() : text_(get_rpc_t_varp()->text) { text_[0] = '\0'; }

  [[gnu::format(printf, 2, 3)]] void append(const char* format, ...) {
    size_t room = kMessageSize - length_;
    va_list arguments;
    va_start(arguments, format);
    int wanted = vsnprintf(text_ + length_, room, format, arguments);
    va_end(arguments);
    length_ += std::min(static_cast<size_t>(std::max(wanted, 0)), room - 1);
  }

  void append_status(const char* prefix, int32_t status) {
    if (prefix != nullptr) append("%s: ", prefix);
    append("%s", __brix_clnt_sperrno(status));
  }

  // Ends the line, over the last byte of a full buffer, and returns the text.
  char* finish() {
    length_ = std::min(length_, kMessageSize - 2);
    append("\n");
    return text_;
  }

 private:
  char* text_;
  size_t length_ = 0;
};

void append_auth_state(ThreadText* text, int32_t state) {
  text->append("; why = ");
  if (state >= kAuthOk && state <= kAuthFailed) {
    // The catalog's numbers are in order, but for the last one.
    const int32_t number = state == kAuthFailed ? 38 : 51 + state;
    text->append("%s", vxcatgets(Catd, kRpcMessageSet, number, kAuthStateTexts[state]));
  } else {
    text->append(vxcatgets(Catd, kRpcMessageSet, 21, "(unknown authentication error - %d)"), state);
  }
}

void append_detail(ThreadText* text, const rpc_err& error) {
  switch (error.status) {
    case RPC_CANTSEND:
    case RPC_CANTRECV:
      text->append("; errno = %s", brix_strerror(error.error_number));
      break;
    case RPC_VERSMISMATCH:
    case RPC_PROGVERSMISMATCH:
      text->append(vxcatgets(Catd, kRpcMessageSet, 20, "; low version = %lu, high version = %lu"),
                   error.versions.low, error.versions.high);
      break;
    case RPC_AUTHERROR:
      append_auth_state(text, error.why);
      break;
    default:
      if ((error.status >= RPC_INTR && error.status <= RPC_STALERACHANDLE) ||
          error.status > RPC_CANCELLED) {
        text->append("; s1 = %lu, s2 = %lu", static_cast<unsigned long>(error.other.s1),
                     static_cast<unsigned long>(error.other.s2));
      }
  }
}

}  // namespace

const char* __brix_clnt_sperrno(int32_t code) {
  init_rpc_errlist();
  // The table is empty again once the process has released it at its end.
  bool known = code >= RPC_SUCCESS && code < kRpcErrorCodes && rpc_errlist[code] != nullptr;
  return known ? rpc_errlist[code] : vxcatgets(Catd, kRpcMessageSet, 50, "Unknown error code");
}

char* clnt_sperror_rpc_err(const rpc_err* error, const char* prefix) {
  ThreadText text;
  text.append_status(prefix, error->status);
  append_detail(&text, *error);
  return text.finish();
}

char* __brix_clnt_sperror(CLIENT* client, const char* prefix) {
  rpc_err error = {};
  client->ops->geterr(client, &error);
  return clnt_sperror_rpc_err(&error, prefix);
}

void __brix_clnt_perror(CLIENT* client, const char* prefix) {
  vxfprintf(stderr, "%s", __brix_clnt_sperror(client, prefix));
}

void __brix_clnt_perrno(int32_t code) { vxfprintf(stderr, "RPC: %s", __brix_clnt_sperrno(code)); }

char* __brix_clnt_spcreateerror(const char* prefix) {
  const rpc_createerr& error = *__get_rpc_createerr();
  ThreadText text;
  text.append_status(prefix, error.status);
  if (error.status == RPC_SYSTEMERROR) {
    text.append(" - %s", brix_strerror(error.cause.error_number));
  } else if (error.status == RPC_PMAPFAILURE) {
    text.append(" - %s", __brix_clnt_sperrno(error.cause.status));
  }
  return text.finish();
}

void __brix_clnt_pcreateerror(const char* prefix) {
  vxfprintf(stderr, "%s", __brix_clnt_spcreateerror(prefix));
}

vx_error_record* clnt_geterrinfo(CLIENT* client, const char* prefix) {
  rpc_err error = {};
  client->ops->geterr(client, &error);
  return err_setstr(kErrTypeRpc, error.status, "%s", clnt_sperror_rpc_err(&error, prefix));
}

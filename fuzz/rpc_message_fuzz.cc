// A whole datagram decoded as a call or a reply, from a stream that knows its end and
// from one that does not: what decodes takes as much when it goes out again, and all of
// it is released. The first byte chooses the results of a reply; 3: a call.
#undef NDEBUG
#include <cassert>
#include <vector>

#include "rpc/handle/c_perror.h"
#include "rpc/messages/rpc_cmsg.h"
#include "rpc/messages/rpc_prot.h"
#include "tests/xdr_item.h"
#include "tests/xdr_streams.h"

constexpr xdrproc_t kCall = xdr_filter<__brix_xdr_callmsg>;
constexpr xdrproc_t kReply = xdr_filter<__brix_xdr_replymsg>;
constexpr xdrproc_t kResults[] = {xdr_filter<item_filter>, xdr_filter<__brix_xdr_u_short>,
                                  __brix_xdr_void};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string_view datagram(reinterpret_cast<const char*>(data) + 1, size - 1);
  for (TestStream::Kind kind : {TestStream::kPlain, TestStream::kBlind}) {
    TestStream in(datagram, kind);
    if (data[0] % 4 == 3) {
      rpc_call_message call = {};
      if (kCall(in.get(), &call)) assert(__brix_xdr_sizeof(kCall, &call) == in.used());
      __brix_xdr_free(kCall, &call);
      continue;
    }
    Item results = {};
    rpc_reply_message reply = {};
    reply.accepted.results = &results;
    reply.accepted.results_filter = kResults[data[0] % 4];
    if (kReply(in.get(), &reply)) {
      // Strings end at their first NUL when they go out again.
      const uint64_t again = __brix_xdr_sizeof(kReply, &reply);
      assert(again > 0 && again <= in.used());
      rpc_err error;
      __brix_seterr_reply(&reply, &error);
      assert(*clnt_sperror_rpc_err(&error, "reply") == 'r');
    }
    __brix_xdr_free(xdr_filter<__brix_xdr_opaque_auth>, &reply.accepted.verifier);
    __brix_xdr_free(reply.accepted.results_filter, &results);
  }
  return 0;
}

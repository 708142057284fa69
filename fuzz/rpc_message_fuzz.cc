// A datagram decoded as a call and as a reply, from a stream that knows its end and from one
// that does not: what decodes takes as much when it goes out again, and all of it is released.
#include "fuzz/harness.h"
#include "rpc/handle/c_perror.h"
#include "rpc/messages/rpc_cmsg.h"
#include "rpc/messages/rpc_prot.h"
#include "tests/xdr_item.h"
#include "tests/xdr_streams.h"

static void check_call(TestStream&& in) {
  constexpr xdrproc_t kCall = xdr_filter<__brix_xdr_callmsg>;
  rpc_call_message call = {};
  if (kCall(in.get(), &call)) assert(__brix_xdr_sizeof(kCall, &call) == in.used());
  __brix_xdr_free(kCall, &call);
}

static void check_reply(TestStream&& in) {
  constexpr xdrproc_t kReply = xdr_filter<__brix_xdr_replymsg>;
  Item results = {};
  rpc_reply_message reply = {};
  reply.accepted.results = &results;
  reply.accepted.results_filter = xdr_filter<item_filter>;
  if (kReply(in.get(), &reply)) {
    // Strings end at their first NUL when they go out again.
    assert(__brix_xdr_sizeof(kReply, &reply) <= in.used());
    rpc_err error;
    __brix_seterr_reply(&reply, &error);
    assert(*clnt_sperror_rpc_err(&error, "reply") == 'r');
  }
  __brix_xdr_free(xdr_filter<__brix_xdr_opaque_auth>, &reply.accepted.verifier);
  __brix_xdr_free(xdr_filter<item_filter>, &results);
}

void check_input(std::string_view datagram) {
  for (const auto kind : {TestStream::kPlain, TestStream::kBlind}) {
    check_call(TestStream(datagram, kind));
    check_reply(TestStream(datagram, kind));
  }
}

// A whole datagram decoded as a call or a reply, from a stream that knows its end and
// from one that does not: what decodes takes as much when it goes out again, and all of
// it is released. The first byte chooses the results of a reply; 3: a call.
#undef NDEBUG
#include <cassert>
#include <vector>

#include "rpc/client/c_perror.h"
#include "rpc/messages/rpc_cmsg.h"
#include "rpc/messages/rpc_prot.h"
#include "tests/xdr_item.h"
#include "tests/xdr_streams.h"

namespace {

constexpr xdrproc_t kResults[] = {xdr_filter<item_filter>, xdr_filter<__brix_xdr_u_short>,
                                  __brix_xdr_void};

// Strings end at their first NUL when they go out again, so a reply may take less.
bool decode(TestStream in, xdrproc_t filter, void* message, bool exactly) {
  if (!filter(in.get(), message)) return false;
  const uint64_t again = __brix_xdr_sizeof(filter, message);
  assert(again == in.used() || (!exactly && again > 0 && again < in.used()));
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string_view datagram(reinterpret_cast<const char*>(data) + 1, size - 1);
  for (TestStream::Kind kind : {TestStream::kPlain, TestStream::kBlind}) {
    if (data[0] % 4 == 3) {
      rpc_call_message call = {};
      decode({datagram, xdr_op::kDecode, kind}, xdr_filter<__brix_xdr_callmsg>, &call, true);
      __brix_xdr_free(xdr_filter<__brix_xdr_callmsg>, &call);
      continue;
    }
    Item results = {};
    rpc_reply_message reply = {};
    reply.accepted.results = &results;
    reply.accepted.results_filter = kResults[data[0] % 4];
    if (decode({datagram, xdr_op::kDecode, kind}, xdr_filter<__brix_xdr_replymsg>, &reply, false)) {
      rpc_err error;
      __brix_seterr_reply(&reply, &error);
      assert(*clnt_sperror_rpc_err(&error, "reply") == 'r');
    }
    __brix_xdr_free(xdr_filter<__brix_xdr_opaque_auth>, &reply.accepted.verifier);
    __brix_xdr_free(reply.accepted.results_filter, &results);
  }
  return 0;
}

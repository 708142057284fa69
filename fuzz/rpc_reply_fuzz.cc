// A whole datagram decoded as a reply, from a stream that knows its end and from one
// that does not. The first byte chooses what the results are; all of it is released.
#undef NDEBUG
#include <cassert>
#include <cstdlib>
#include <vector>

#include "rpc/client/c_perror.h"
#include "rpc/messages/rpc_prot.h"
#include "rpc/xdr/x_mem.h"
#include "rpc/xdr/xdr_object.h"
#include "tests/xdr_item.h"

namespace {

constexpr xdrproc_t kFilters[] = {xdr_filter<item_filter>, xdr_filter<__brix_xdr_u_short>,
                                  __brix_xdr_void};

void decode(std::vector<uint8_t>& datagram, xdrproc_t filter, bool blind) {
  XDR in;
  __brix_xdrmem_create(&in, datagram.data(), static_cast<int32_t>(datagram.size()),
                       xdr_op::kDecode);
  xdr_ops ops = *in.ops;
  if (blind) {
    ops.get_remaining = [](XDR*) { return kXdrRemainingUnknown; };
    ops.get_inline = [](XDR*, int32_t) -> uint8_t* { return nullptr; };
    in.ops = &ops;
  }
  Item results = {};
  rpc_reply_message reply = {};
  reply.accepted.results = &results;
  reply.accepted.results_filter = filter;
  if (__brix_xdr_replymsg(&in, &reply)) {
    // Strings end at their first NUL when they go out again, so that may take less.
    uint64_t again = __brix_xdr_sizeof(xdr_filter<__brix_xdr_replymsg>, &reply);
    assert(again > 0 && again <= in.ops->get_position(&in));
    rpc_err error;
    __brix_seterr_reply(&reply, &error);
    assert(*clnt_sperror_rpc_err(&error, "reply") == 'r');
  }
  __brix_xdr_free(xdr_filter<__brix_xdr_opaque_auth>, &reply.accepted.verifier);
  __brix_xdr_free(filter, &results);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  std::vector<uint8_t> datagram(data + 1, data + size);  // exactly sized
  xdrproc_t filter = kFilters[data[0] % std::size(kFilters)];
  decode(datagram, filter, false);
  decode(datagram, filter, true);
  return 0;
}

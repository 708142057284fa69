// A whole datagram decoded as a call. What decodes comes back the same after being
// encoded, and is released whether it decodes or not.
#undef NDEBUG
#include <cassert>
#include <cstring>
#include <vector>

#include "rpc/messages/rpc_cmsg.h"
#include "rpc/xdr/x_mem.h"
#include "rpc/xdr/xdr_object.h"

namespace {

constexpr xdrproc_t kCall = xdr_filter<__brix_xdr_callmsg>;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<uint8_t> datagram(data, data + size);  // exactly sized: over-reads are seen
  XDR in;
  __brix_xdrmem_create(&in, datagram.data(), static_cast<int32_t>(size), xdr_op::kDecode);
  rpc_call_message call = {};
  if (__brix_xdr_callmsg(&in, &call)) {
    uint32_t used = in.ops->get_position(&in);
    assert(__brix_xdr_sizeof(kCall, &call) == used);
    std::vector<uint8_t> again(used);
    XDR out;
    __brix_xdrmem_create(&out, again.data(), static_cast<int32_t>(used), xdr_op::kEncode);
    assert(__brix_xdr_callmsg(&out, &call));
    // All but the padding, whose bytes need not be zero when they come in.
    assert(memcmp(again.data(), datagram.data(), 32) == 0);
  }
  __brix_xdr_free(kCall, &call);
  return 0;
}

#include "rpc/xdr/x_count.h"

namespace {

uint64_t& counter(XDR* xdrs) { return *static_cast<uint64_t*>(xdrs->private_word); }

template <typename T>
bool no_value(XDR* /*xdrs*/, T* /*value*/) {
  return false;
}

template <uint32_t bytes, typename T>
bool count(XDR* xdrs, const T* /*value*/) {
  counter(xdrs) += bytes;
  return true;
}

bool no_bytes(XDR* /*xdrs*/, void* /*bytes*/, uint32_t /*length*/) { return false; }

bool count_bytes(XDR* xdrs, const void* /*bytes*/, uint32_t length) {
  counter(xdrs) += length;
  return true;
}

uint32_t get_position(XDR* xdrs) { return static_cast<uint32_t>(counter(xdrs)); }
bool no_position(XDR* /*xdrs*/, uint32_t /*position*/) { return false; }
uint8_t* no_inline(XDR* /*xdrs*/, int32_t /*length*/) { return nullptr; }
void nothing(XDR* /*xdrs*/) {}

bool control(XDR* /*xdrs*/, uint32_t request, void* /*information*/) {
  return request == kXdrControlBytesAvailable;
}

int32_t none_remaining(XDR* /*xdrs*/) { return 0; }

constexpr xdr_ops kCountingOps = {
    no_value<long>,    count<4, long>,    no_bytes,          count_bytes,    get_position,
    no_position,       no_inline,         nothing,           control,        no_value<int32_t>,
    count<4, int32_t>, no_value<int64_t>, count<8, int64_t>, none_remaining,
};

}  // namespace

void xdrcount_create(XDR* xdrs, uint64_t* bytes) {
  xdrs->operation = xdr_op::kEncode;
  xdrs->ops = &kCountingOps;
  xdrs->private_word = bytes;
}

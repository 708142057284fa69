// XDR filters at work on exactly sized buffers, where sanitizers see every overrun,
// and on streams that cannot tell what they hold.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "rpc/xdr/x_mem.h"
#include "rpc/xdr/xdr.h"
#include "rpc/xdr/xdr_object.h"
#include "tests/failing_malloc.h"
#include "tests/lab.h"

/// A stream over a copy of `bytes`. A blind one is as a connection's: it tells neither
/// what remains nor gives any of it inline.
class TestStream {
 public:
  enum Kind { kPlain, kBlind };

  TestStream(std::string_view bytes, xdr_op operation, Kind kind = kPlain)
      : size_(bytes.size()), bytes_(new char[bytes.size()]) {
    std::ranges::copy(bytes, bytes_.get());
    __brix_xdrmem_create(&xdrs_, bytes_.get(), static_cast<int32_t>(size_), operation);
    if (kind == kPlain) return;
    blind_ops_ = *xdrs_.ops;
    blind_ops_.get_remaining = [](XDR*) { return kXdrRemainingUnknown; };
    blind_ops_.get_inline = [](XDR*, int32_t) -> uint8_t* { return nullptr; };
    xdrs_.ops = &blind_ops_;
  }

  XDR* get() { return &xdrs_; }
  XDR* operator->() { return &xdrs_; }
  size_t used() { return xdrs_.ops->get_position(&xdrs_); }
  std::string hex() { return to_hex({bytes_.get(), used()}); }

 private:
  size_t size_;
  std::unique_ptr<char[]> bytes_;
  XDR xdrs_ = {};
  xdr_ops blind_ops_ = {};
};

/// `object` encoded, in hex; "fails" when it does not encode. Every smaller stream
/// refuses it, and its size is foretold.
inline std::string encoded(xdrproc_t filter, void* object) {
  TestStream whole(std::string(70000, '\xEE'), xdr_op::kEncode);
  if (!filter(whole.get(), object)) return "fails";
  EXPECT_EQ(__brix_xdr_sizeof(filter, object), whole.used());
  for (size_t less = 0; less < std::min<size_t>(whole.used(), 200); ++less) {
    EXPECT_FALSE(filter(TestStream(std::string(less, 'x'), xdr_op::kEncode).get(), object)) << less;
  }
  return whole.hex();
}

/// Sees that `bytes`, which `filter` decodes to a T, are refused when any of them are
/// missing, and that what was decoded by then, or before memory ran out, is released.
template <typename T>
void expect_failures_release(xdrproc_t filter, std::string_view bytes, const T& start = {}) {
  for (TestStream::Kind kind : {TestStream::kPlain, TestStream::kBlind}) {
    for (size_t length = 0; length < bytes.size(); ++length) {
      T object = start;
      TestStream stream(bytes.substr(0, length), xdr_op::kDecode, kind);
      EXPECT_FALSE(filter(stream.get(), &object)) << length << " of " << bytes.size();
      __brix_xdr_free(filter, &object);
    }
    for (int granted = 0;; ++granted) {
      T object = start;
      TestStream stream(bytes, xdr_op::kDecode, kind);
      FailingMalloc failing(granted);
      bool decoded = filter(stream.get(), &object);
      EXPECT_NE(decoded, failing.failed());
      __brix_xdr_free(filter, &object);
      if (!failing.failed()) break;
    }
  }
}

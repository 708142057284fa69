// XDR filters at work on exactly sized buffers, where sanitizers see every overrun,
// and on streams that cannot tell what they hold; and what carries record streams.
#pragma once

#include <algorithm>

#include "rpc/xdr/x_mem.h"
#include "rpc/xdr/xdr_object.h"
#include "tests/fakes.h"
#include "tests/machine.h"

/// A stream over memory of its own. A blind one is as a connection's: it tells neither what
/// remains nor gives any of it inline.
class TestStream {
 public:
  enum Kind { kPlain, kBlind };

  /// Encodes into `room` bytes.
  explicit TestStream(size_t room) : bytes_(new char[room]) {
    __brix_xdrmem_create(&xdrs_, bytes_.get(), static_cast<int32_t>(room), xdr_op::kEncode);
  }

  /// Decodes a copy of `bytes`.
  explicit TestStream(std::string_view bytes, Kind kind = kPlain) : TestStream(bytes.size()) {
    std::ranges::copy(bytes, bytes_.get());
    xdrs_.operation = xdr_op::kDecode;
    if (kind == kPlain) return;
    blind_ops_ = *xdrs_.ops;
    blind_ops_.get_remaining = [](XDR*) { return kXdrRemainingUnknown; };
    blind_ops_.get_inline = [](XDR*, int32_t) -> uint8_t* { return nullptr; };
    xdrs_.ops = &blind_ops_;
  }

  XDR* get() { return &xdrs_; }
  size_t used() { return xdrs_.ops->get_position(&xdrs_); }
  std::string hex() { return to_hex({bytes_.get(), used()}); }

 private:
  std::unique_ptr<char[]> bytes_;
  XDR xdrs_ = {};
  xdr_ops blind_ops_ = {};
};

/// `object` encoded, in hex, or "fails". Smaller streams refuse it, and its size is foretold.
inline std::string encoded(xdrproc_t filter, void* object) {
  TestStream whole(70000);
  if (!filter(whole.get(), object)) return "fails";
  EXPECT_EQ(__brix_xdr_sizeof(filter, object), whole.used());
  for (size_t less = 0; less < std::min<size_t>(whole.used(), 200); ++less) {
    EXPECT_FALSE(filter(TestStream(less).get(), object)) << less;
  }
  return whole.hex();
}

/// Checks that `hex` (as from_hex reads it) decodes to a T that encodes as it again, and is
/// refused when any of it is missing or when memory runs out; and that all that was decoded by
/// then is released.
template <typename T>
void expect_carried(xdrproc_t filter, std::string_view hex, const T& start = {}) {
  SCOPED_TRACE(hex);
  const std::string bytes = from_hex(hex);
  auto decodes = [&](TestStream::Kind kind, size_t length) {
    T object = start;
    const bool decoded = filter(TestStream(bytes.substr(0, length), kind).get(), &object);
    if (decoded) {
      EXPECT_EQ(encoded(filter, &object), to_hex(bytes));
    }
    __brix_xdr_free(filter, &object);
    return decoded;
  };
  auto decode_all = [&] {
    for (TestStream::Kind kind : {TestStream::kPlain, TestStream::kBlind}) {
      for (size_t length = 0; length < bytes.size(); ++length) {
        EXPECT_FALSE(decodes(kind, length)) << length;
      }
      fakes::refuse_each_allocation([&](const fakes::FailingMalloc& failing) {
        const bool decoded = decodes(kind, bytes.size());
        EXPECT_NE(decoded, failing.failed());
      });
    }
  };
  EXPECT_EQ(fakes::pieces_left_by(decode_all), 0);
}

/// What a record stream is over: it reads and writes strings.
struct Pipe {
  std::string incoming;
  uint64_t most = UINT32_MAX;  // bytes of one read
  bool stalls = false;         // every other read finds nothing
  size_t taken = 0;
  bool stalled = false;
  std::string outgoing = {};
  size_t writes = 0;
  size_t room = SIZE_MAX;  // bytes until writing fails

  static int64_t read(void* transport, void* buffer, uint32_t length, void* second,
                      uint32_t second_length) {
    auto* pipe = static_cast<Pipe*>(transport);
    pipe->stalled = pipe->stalls && !pipe->stalled;
    if (pipe->stalled) return -1;
    const uint64_t most = std::min(pipe->most, uint64_t{length} + second_length);
    const std::string bytes = pipe->incoming.substr(pipe->taken, most);
    pipe->taken += bytes.size();
    const size_t direct = bytes.copy(static_cast<char*>(buffer), length);
    bytes.copy(static_cast<char*>(second), second_length, direct);
    return static_cast<int64_t>(bytes.size());
  }

  static int64_t write(void* transport, const void* buffer, uint32_t length, const void* second,
                       uint32_t second_length) {
    auto* pipe = static_cast<Pipe*>(transport);
    std::string bytes(static_cast<const char*>(buffer), length);
    if (second_length > 0) bytes.append(static_cast<const char*>(second), second_length);
    bytes.resize(std::min(bytes.size(), pipe->room));
    pipe->room -= bytes.size();
    pipe->outgoing += bytes;
    ++pipe->writes;
    return static_cast<int64_t>(bytes.size());
  }
};

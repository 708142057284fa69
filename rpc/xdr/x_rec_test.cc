#include "rpc/xdr/x_rec.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "tests/lab.h"
#include "tests/tcp_peer.h"

namespace {

using lab::fragment;

// A transport over strings.
struct Pipe {
  std::string incoming;
  size_t taken = 0;
  std::vector<std::string> writes;
  size_t room = SIZE_MAX;      // bytes until writing fails
  uint32_t most = UINT32_MAX;  // bytes of one read

  std::string outgoing() const {
    std::string all;
    for (const std::string& bytes : writes) all += bytes;
    return all;
  }
};

int64_t pipe_read(void* transport, void* buffer, uint32_t length, void* /*second*/,
                  uint32_t /*second_length*/) {
  auto* pipe = static_cast<Pipe*>(transport);
  size_t count =
      pipe->incoming.copy(static_cast<char*>(buffer), std::min(length, pipe->most), pipe->taken);
  pipe->taken += count;
  return static_cast<int64_t>(count);
}

int64_t pipe_write(void* transport, const void* buffer, uint32_t length, const void* second,
                   uint32_t second_length) {
  auto* pipe = static_cast<Pipe*>(transport);
  std::string bytes(static_cast<const char*>(buffer), length);
  if (second_length > 0) bytes.append(static_cast<const char*>(second), second_length);
  bytes.resize(std::min(bytes.size(), pipe->room));
  pipe->room -= bytes.size();
  pipe->writes.push_back(bytes);
  return static_cast<int64_t>(bytes.size());
}

class RecordTest : public LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    make(100);
  }
  void TearDown() override { xdrs_.ops->destroy(&xdrs_); }

  // A new stream and transport.
  void make(uint32_t send_size) {
    if (xdrs_.ops != nullptr) xdrs_.ops->destroy(&xdrs_);
    pipe_ = {};
    ASSERT_TRUE(__brix_xdrrec_create(&xdrs_, send_size, 100, &pipe_, pipe_read, pipe_write));
  }

  void decode(const std::string& incoming) {
    pipe_.incoming += incoming;
    xdrs_.operation = xdr_op::kDecode;
  }

  bool put(const std::string& bytes) {
    return xdrs_.ops->put_bytes(&xdrs_, bytes.data(), static_cast<uint32_t>(bytes.size()));
  }

  // `count` bytes of the record, or "failed".
  std::string get(uint32_t count) {
    std::string bytes(count, '?');
    return xdrs_.ops->get_bytes(&xdrs_, bytes.data(), count) ? bytes : "failed";
  }

  bool end(bool send_now = true) { return __brix_xdrrec_endofrecord(&xdrs_, send_now); }
  bool skip() { return __brix_xdrrec_skiprecord(&xdrs_); }

  XDR xdrs_{};
  Pipe pipe_;
};

std::string letters(size_t count) {
  std::string bytes = "abcdefghijklmnopqrstuvwxyz";
  while (bytes.size() < count) bytes += bytes;
  return bytes.substr(0, count);
}

TEST_F(RecordTest, EveryKindOfValueGoesOutAndComesBack) {
  const long whole = -2;
  const int32_t narrow = -3;
  const int64_t wide = 0x0102030405060708;
  ASSERT_TRUE(xdrs_.ops->put_long(&xdrs_, &whole) && xdrs_.ops->put_int32(&xdrs_, &narrow) &&
              xdrs_.ops->put_int64(&xdrs_, &wide) && put("abcd"));
  EXPECT_EQ(xdrs_.ops->get_position(&xdrs_), 20U);
  ASSERT_TRUE(end());
  const std::string bytes = pipe_.outgoing();
  EXPECT_EQ(to_hex(bytes), "80000014FFFFFFFEFFFFFFFD010203040506070861626364");
  for (uint32_t most : {1U, 3U, 100U}) {
    pipe_.most = most;
    decode(bytes);
    ASSERT_TRUE(skip());
    long a = 0;
    int32_t b = 0;
    int64_t c = 0;
    EXPECT_TRUE(xdrs_.ops->get_long(&xdrs_, &a) && xdrs_.ops->get_int32(&xdrs_, &b) &&
                xdrs_.ops->get_int64(&xdrs_, &c));
    EXPECT_TRUE(a == 0xFFFFFFFE && b == narrow && c == wide) << "long is extended by zeros";
    EXPECT_EQ(get(4), "abcd");
    EXPECT_EQ(get(1), "failed") << "the record's end";
  }
}

TEST_F(RecordTest, WhatLeavesInOneWrite) {
  const std::vector<uint32_t> small(2100, kXdrRecLargePut - 8);
  const struct {
    uint32_t buffer;
    std::vector<uint32_t> puts;
    std::vector<const char*> headers;      // of the fragments, each of which is a write
  } cases[] = {{100, {96}, {"80000060"}},  // with its header it fills the buffer
               {100, {96, 100}, {"00000060", "00000060", "80000004"}},
               {9000, {4, kXdrRecLargePut - 1}, {"80001F43"}},
               {9000, {4, kXdrRecLargePut}, {"00001F44", "80000000"}},
               {9000, {4, kXdrRecLargePut + 3}, {"00001F44", "80000003"}},
               {100, {4, kXdrRecMaxFragment}, {"01000000", "80000004"}},
               {3 * kXdrRecMaxFragment, small, {"01000000", "80001760"}}};
  for (const auto& [buffer, puts, headers] : cases) {
    make(buffer);
    std::string all;
    for (uint32_t size : puts) {
      const std::string bytes = letters(size);
      ASSERT_TRUE(put(bytes));
      all += bytes;
    }
    ASSERT_TRUE(end());
    ASSERT_EQ(pipe_.writes.size(), headers.size());
    size_t at = 0;
    for (size_t i = 0; i < headers.size(); ++i) {
      const std::string& sent = pipe_.writes[i];
      const size_t length = strtoul(headers[i], nullptr, 16) & 0x7FFFFFFF;
      EXPECT_TRUE(sent == from_hex(headers[i]) + all.substr(at, length)) << headers[i];
      at += length;
    }
  }
}

TEST_F(RecordTest, DelayedEnds) {
  // A sixteenth of the buffer has to be free: of 160 bytes more than 10.
  const int64_t next = 0x6162636465666768;  // does not fit behind 145 bytes
  const std::pair<size_t, bool> cases[] = {{0, true}, {145, true}, {146, false}, {156, false}};
  for (const auto& [size, delayed] : cases) {
    make(160);
    ASSERT_TRUE(put(letters(size)) && end(false));
    EXPECT_EQ(pipe_.writes.empty(), delayed) << size;
    ASSERT_TRUE(xdrs_.ops->put_int64(&xdrs_, &next) && end());
    EXPECT_EQ(to_hex(pipe_.outgoing()), to_hex(fragment(letters(size)) + fragment("abcdefgh")));
    EXPECT_EQ(pipe_.writes.size(), size == 0 ? 1U : 2U);
  }
  // An empty last fragment waits as well, one with data does not.
  make(160);
  ASSERT_TRUE(put(letters(8000)) && end(false));
  EXPECT_EQ(pipe_.outgoing().size(), 8004U);
  ASSERT_TRUE(put(letters(8001)) && end(false));
  EXPECT_TRUE(pipe_.outgoing() == fragment(letters(8000), false) + fragment("") +
                                      fragment(letters(8000), false) +
                                      fragment(letters(8001).substr(8000)));
}

TEST_F(RecordTest, WithoutDelayedEnds) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  lab::write_file("/run/nodelayeor", "");
  auto writes = [this] {
    setenv("KIV_DEBUG_DIR", "/run", 1);
    return put(letters(8000)) && end(false) ? static_cast<int>(pipe_.writes.size()) : 0;
  };
  EXPECT_EXIT(_exit(writes()), testing::ExitedWithCode(2), "");
}

TEST_F(RecordTest, FailedSends) {
  // Nothing of a record left: it is dropped, what waits before it is not.
  ASSERT_TRUE(put("wait") && end(false));
  pipe_.room = 0;
  ASSERT_TRUE(put("lost"));
  EXPECT_FALSE(end());
  EXPECT_FALSE(put(letters(200))) << "half-way";
  EXPECT_FALSE(put("more")) << "the rest of that record is not taken for one";
  EXPECT_FALSE(end());
  EXPECT_FALSE(xdrrec_is_broken(&xdrs_));
  pipe_.room = SIZE_MAX;
  ASSERT_TRUE(put("sent") && end());
  EXPECT_EQ(to_hex(pipe_.outgoing()), to_hex(fragment("wait") + fragment("sent")));
  // A part left, of a fragment or of a record: nothing can follow.
  for (size_t room : {size_t{3}, size_t{100}}) {
    make(100);
    pipe_.room = room;
    EXPECT_FALSE(put(letters(200)) || end());
    EXPECT_TRUE(xdrrec_is_broken(&xdrs_));
    pipe_.room = SIZE_MAX;
    EXPECT_TRUE(put("none"));
    EXPECT_FALSE(end() || skip());
  }
}

TEST_F(RecordTest, PositionsAndInlineStayInTheFragment) {
  const xdr_ops& ops = *xdrs_.ops;
  EXPECT_TRUE(ops.get_inline(&xdrs_, -1) == nullptr && ops.get_inline(&xdrs_, 97) == nullptr);
  uint8_t* at = ops.get_inline(&xdrs_, 4);
  ASSERT_NE(at, nullptr);
  std::copy_n("abcd", 4, at);
  ASSERT_TRUE(put("efgh") && ops.set_position(&xdrs_, 4) && put("E"));
  EXPECT_EQ(ops.get_inline(&xdrs_, 3), nullptr) << "not aligned";
  EXPECT_FALSE(ops.set_position(&xdrs_, 9));
  ASSERT_TRUE(ops.set_position(&xdrs_, 8) && end());
  EXPECT_EQ(pipe_.outgoing(), fragment("abcdEfgh"));

  decode(fragment("abcd", false) + fragment("efghijkl") + fragment("tail"));
  ASSERT_TRUE(skip());
  EXPECT_EQ(get(4), "abcd");
  EXPECT_FALSE(ops.set_position(&xdrs_, 5)) << "the next fragment's";
  EXPECT_TRUE(ops.set_position(&xdrs_, 2));
  EXPECT_EQ(get(6), "cdefgh");
  EXPECT_EQ(ops.get_position(&xdrs_), 4U);
  EXPECT_EQ(ops.get_inline(&xdrs_, 8), nullptr) << "of two records";
  at = ops.get_inline(&xdrs_, 4);
  ASSERT_NE(at, nullptr);
  EXPECT_EQ(std::string(at, at + 4), "ijkl");
}

TEST_F(RecordTest, SkippingAndTheEndOfInput) {
  decode(fragment("rest", false) + fragment(" of it", false) + fragment("go") + fragment("last"));
  ASSERT_TRUE(skip());
  EXPECT_EQ(get(6), "rest o");
  EXPECT_FALSE(__brix_xdrrec_eof(&xdrs_));
  ASSERT_TRUE(skip());
  EXPECT_EQ(get(4), "last");
  EXPECT_TRUE(__brix_xdrrec_eof(&xdrs_));
}

TEST_F(RecordTest, RefusedInput) {
  std::string empties;
  for (uint32_t i = 0; i < kXdrRecMaxEmptyFragments; ++i) empties += fragment("", false);
  const std::pair<std::string, bool> cases[] = {
      {from_hex("01000000") + "abcd", true},  // 16 MiB
      {from_hex("01000001") + "abcd", false},
      {from_hex("FFFFFFFF") + "abcd", false},
      {empties + fragment("abcd"), true},
      {empties + fragment("", false) + fragment("abcd"), false},
      {empties + fragment("ab", false) + empties + fragment("cd"), true}};
  testing::internal::CaptureStderr();
  for (const auto& [input, accepted] : cases) {
    make(100);
    decode(input);
    EXPECT_TRUE(skip());
    EXPECT_EQ(get(4), accepted ? "abcd" : "failed");
    EXPECT_EQ(xdrrec_is_broken(&xdrs_), !accepted);
    EXPECT_TRUE(accepted || __brix_xdrrec_eof(&xdrs_));
  }
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::HasSubstr("frag size 16777217, closing connection\n"));
  make(100);
  decode(fragment("abc") + fragment("d"));
  ASSERT_TRUE(skip());
  EXPECT_EQ(get(3), "abc");
  EXPECT_FALSE(skip()) << "broken units";
  EXPECT_TRUE(xdrrec_is_broken(&xdrs_));
}

}  // namespace

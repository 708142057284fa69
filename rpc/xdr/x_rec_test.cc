#include "rpc/xdr/x_rec.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "tests/printed.h"
#include "tests/rpc_server.h"
#include "tests/xdr_streams.h"

namespace {

using lab::fragment;
using testing::HasSubstr;

class RecordTest : public testing::Test {
 protected:
  void SetUp() override { make(100); }
  void TearDown() override { xdrs_.ops->destroy(&xdrs_); }

  // A new stream and transport.
  void make(uint32_t send_size) {
    if (xdrs_.ops != nullptr) xdrs_.ops->destroy(&xdrs_);
    pipe_ = {};
    ASSERT_TRUE(__brix_xdrrec_create(&xdrs_, send_size, 100, &pipe_, Pipe::read, Pipe::write));
  }

  // Moves to the first record of `incoming`.
  void decode(const std::string& incoming) {
    pipe_.incoming += incoming;
    xdrs_.operation = xdr_op::kDecode;
    ASSERT_TRUE(skip());
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
  const xdr_ops& ops = *xdrs_.ops;
  const long whole = -2;
  const int32_t narrow = -3;
  const int64_t wide = 0x0102030405060708;
  ASSERT_TRUE(ops.put_long(&xdrs_, &whole) && ops.put_int32(&xdrs_, &narrow) &&
              ops.put_int64(&xdrs_, &wide) && put("abcd") && put("") &&
              ops.get_position(&xdrs_) == 20 && end());
  EXPECT_EQ(to_hex(pipe_.outgoing), "80000014FFFFFFFEFFFFFFFD010203040506070861626364");
  for (uint32_t most : {1U, 3U, 100U}) {
    pipe_.most = most;
    decode(pipe_.outgoing);
    long a = 0;
    int32_t b = 0;
    int64_t c = 0;
    EXPECT_TRUE(ops.get_long(&xdrs_, &a) && ops.get_int32(&xdrs_, &b) &&
                ops.get_int64(&xdrs_, &c) && ops.get_bytes(&xdrs_, nullptr, 0));
    EXPECT_TRUE(a == 0xFFFFFFFE && b == narrow && c == wide) << "long is extended by zeros";
    EXPECT_EQ(get(4), "abcd");
    EXPECT_EQ(get(1), "failed") << "the record's end";
  }
  EXPECT_FALSE(ops.control(&xdrs_, kXdrControlBytesAvailable, nullptr));
  EXPECT_EQ(ops.get_remaining(&xdrs_), kXdrRemainingUnknown);
  FailingMalloc nothing(0);
  XDR none;
  EXPECT_FALSE(__brix_xdrrec_create(&none, 100, 100, &pipe_, Pipe::read, Pipe::write));
}

TEST_F(RecordTest, WhatLeavesInOneWrite) {
  using Puts = std::vector<uint32_t>;
  // The headers are those of the fragments, each of which is a write.
  const std::tuple<uint32_t, Puts, std::vector<const char*>> cases[] = {
      {100, {96}, {"80000060"}},  // with its header it fills the buffer
      {100, {96, 100}, {"00000060", "00000060", "80000004"}},
      {9000, {4, kXdrRecLargePut - 1}, {"80001F43"}},
      {9000, {4, kXdrRecLargePut}, {"00001F44", "80000000"}},
      {9000, {4, kXdrRecLargePut + 3}, {"00001F44", "80000003"}},
      {100, {4, kXdrRecMaxFragment}, {"01000000", "80000004"}},
      {3 * kXdrRecMaxFragment, Puts(2100, kXdrRecLargePut - 8), {"01000000", "80001760"}}};
  for (const auto& [buffer, puts, headers] : cases) {
    make(buffer);
    std::string all, wanted;
    for (uint32_t size : puts) {
      ASSERT_TRUE(put(letters(size)));
      all += letters(size);
    }
    ASSERT_TRUE(end());
    for (const char* header : headers) {
      const size_t length = strtoul(header, nullptr, 16) & 0x7FFFFFFF;
      wanted += from_hex(header) + all.substr(0, length);
      all.erase(0, length);
    }
    EXPECT_TRUE(pipe_.outgoing == wanted && pipe_.writes == headers.size()) << headers[0];
  }
}

TEST_F(RecordTest, DelayedEnds) {
  // A sixteenth of the buffer has to be free: of 160 bytes more than 10.
  const int64_t next = 0x6162636465666768;  // does not fit behind 145 bytes
  for (auto [size, delayed] :
       {std::pair{size_t{0}, true}, {145U, true}, {146U, false}, {156U, false}}) {
    make(160);
    ASSERT_TRUE(put(letters(size)) && end(false));
    EXPECT_EQ(pipe_.outgoing.empty(), delayed) << size;
    ASSERT_TRUE(xdrs_.ops->put_int64(&xdrs_, &next) && end());
    EXPECT_EQ(pipe_.outgoing, fragment(letters(size)) + fragment("abcdefgh"));
    EXPECT_EQ(pipe_.writes, size == 0 ? 1U : 2U);
  }
  // An empty last fragment waits as well, one with data does not.
  make(160);
  ASSERT_TRUE(put(letters(8000)) && end(false));
  EXPECT_EQ(pipe_.outgoing, fragment(letters(8000), false));
  ASSERT_TRUE(put(letters(8001)) && end(false));
  EXPECT_EQ(pipe_.outgoing, fragment(letters(8000), false) + fragment("") +
                                fragment(letters(8000), false) +
                                fragment(letters(8001).substr(8000)));
}

TEST_F(RecordTest, WithoutDelayedEnds) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string directory = testing::TempDir();
  lab::write_file(directory + "nodelayeor", "");
  auto writes = [&] {
    setenv("KIV_DEBUG_DIR", directory.c_str(), 1);
    return put(letters(8000)) && end(false) ? static_cast<int>(pipe_.writes) : 0;
  };
  EXPECT_EXIT(_exit(writes()), testing::ExitedWithCode(2), "");
  unlink((directory + "nodelayeor").c_str());
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
  EXPECT_EQ(pipe_.outgoing, fragment("wait") + fragment("sent"));
  // A part left, of a fragment or of a record: nothing can follow.
  for (size_t room : {size_t{3}, size_t{100}}) {
    make(100);
    pipe_.room = room;
    EXPECT_FALSE(put(letters(200)) || end());
    EXPECT_TRUE(xdrrec_is_broken(&xdrs_));
    pipe_.room = SIZE_MAX;
    EXPECT_TRUE(put("none"));
    EXPECT_FALSE(end() || skip() || xdrrec_at_record(&xdrs_));
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
  ASSERT_TRUE(!ops.set_position(&xdrs_, 9) && ops.set_position(&xdrs_, 8) && end());
  EXPECT_EQ(pipe_.outgoing, fragment("abcdEfgh"));
  EXPECT_NE(ops.get_inline(&xdrs_, 96), nullptr) << "all that the buffer holds";

  decode(fragment("abcd", false) + fragment("efghijkl") + fragment("tail"));
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
  EXPECT_FALSE(xdrrec_at_record(&xdrs_)) << "behind an empty one";
  decode(fragment("rest", false) + fragment(" of it", false) + fragment("go") + fragment("last"));
  EXPECT_TRUE(xdrrec_at_record(&xdrs_));
  EXPECT_EQ(get(6), "rest o");
  EXPECT_FALSE(xdrrec_at_record(&xdrs_) || __brix_xdrrec_eof(&xdrs_));
  ASSERT_TRUE(skip());
  EXPECT_EQ(get(4), "last");
  EXPECT_TRUE(xdrrec_at_header(&xdrs_) && __brix_xdrrec_eof(&xdrs_));
  // Large pieces go past the buffer, which has what comes behind them; pieces stay aligned.
  decode(fragment(letters(1001) + "next" + letters(999), false) + fragment("tail"));
  EXPECT_EQ(get(1001), letters(1001));
  EXPECT_EQ(pipe_.taken, pipe_.incoming.size() - 1011 + 99) << "all but one of 100 bytes";
  EXPECT_FALSE(xdrrec_at_header(&xdrs_));
  EXPECT_EQ(get(1007), "next" + letters(999) + "tail");
}

TEST_F(RecordTest, RefusedInput) {
  std::string empties;
  for (uint32_t i = 0; i < kXdrRecMaxEmptyFragments; ++i) empties += fragment("", false);
  const std::string too_large = "frag size 16777217, closing connection\n";
  const std::string too_many = "too many empty fragments, closing connection\n";
  const std::pair<std::string, std::string> cases[] = {
      {from_hex("01000000") + "abcd", ""},  // 16 MiB
      {from_hex("01000001") + "abcd", too_large},
      {from_hex("81000001") + "abcd", too_large},
      {empties + fragment("abcd"), ""},
      {empties + fragment("", false) + fragment("abcd"), too_many},
      {empties + fragment("ab", false) + empties + fragment("cd"), ""}};
  for (const auto& [input, told] : cases) {
    make(100);
    decode(input);
    std::string got;
    const std::string text = printed(1, [&] { got = get(4); });
    EXPECT_EQ(got, told.empty() ? "abcd" : "failed");
    EXPECT_TRUE(text.ends_with(told) && text.empty() == told.empty()) << text;
    EXPECT_TRUE(xdrrec_is_broken(&xdrs_) != told.empty() &&
                (told.empty() || __brix_xdrrec_eof(&xdrs_)));
  }
  make(100);
  decode(fragment("abc") + fragment("d"));
  EXPECT_EQ(get(3), "abc");
  EXPECT_THAT(printed(1, [this] { EXPECT_FALSE(skip()) << "broken units"; }),
              HasSubstr("xdrrec_skiprecord unaligned input pointer\n"));
  EXPECT_TRUE(xdrrec_is_broken(&xdrs_));
}

}  // namespace

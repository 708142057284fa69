#include "rpc/xdr/x_rec.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "tests/rpc_server.h"
#include "tests/work.h"
#include "tests/xdr_streams.h"

namespace {

using machine::fragment;
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

TEST_F(RecordTest, WhatLeavesInOneWrite) {
  const int64_t next = 0x6162636465666768;
  // Puts of one size and a last one; how many writes they take, then with the next record; and
  // the headers of the fragments. A header that has not left by then waits for the next record.
  const std::tuple<uint32_t, int, size_t, size_t, size_t, size_t, std::vector<const char*>>
      cases[] = {
          {100, 0, 0, 96, 1, 2, {"80000060"}},  // with its header it fills the buffer
          {100, 1, 95, 2, 2, 3, {"00000060", "80000001"}},
          {100, 1, 96, 100, 3, 4, {"00000060", "00000060", "80000004"}},
          {160, 0, 0, 0, 0, 1, {"80000000"}},
          {160, 0, 0, 145, 0, 2, {"80000091"}},  // a sixteenth is free, not enough for the next
          {160, 0, 0, 146, 1, 2, {"80000092"}},
          {9000, 1, 4, kXdrRecLargePut - 1, 0, 1, {"80001F43"}},
          {9000, 1, 4, kXdrRecLargePut, 1, 2, {"00001F44", "80000000"}},
          {9000, 1, 4, kXdrRecLargePut + 3, 2, 3, {"00001F44", "80000003"}},
          {100, 1, 4, kXdrRecMaxFragment, 2, 3, {"01000000", "80000004"}},
          {3 * kXdrRecMaxFragment, 4096, 4096, 4, 2, 3, {"01000000", "80000004"}},
          {3 * kXdrRecMaxFragment, 4096, 4096, 8000, 2, 3, {"01000000", "00001F40", "80000000"}}};
  for (const auto& [buffer, count, size, last, writes, all_writes, headers] : cases) {
    make(buffer);
    std::string all, wanted;
    for (int i = 0; i <= count; ++i) {
      const std::string bytes = letters(i < count ? size : last);
      ASSERT_TRUE(put(bytes));
      all += bytes;
    }
    ASSERT_TRUE(end(false));
    EXPECT_EQ(pipe_.writes, writes) << headers[0];
    ASSERT_TRUE(xdrs_.ops->put_int64(&xdrs_, &next) && end());
    for (const char* header : headers) {
      const size_t length = strtoul(header, nullptr, 16) & 0x7FFFFFFF;
      wanted += from_hex(header) + all.substr(0, length);
      all.erase(0, length);
    }
    wanted += fragment("abcdefgh");
    EXPECT_TRUE(pipe_.outgoing == wanted && pipe_.writes == all_writes) << headers[0];
  }
}

TEST_F(RecordTest, WithoutDelayedEnds) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string directory = testing::TempDir();
  machine::write_file(directory + "nodelayeor", "");
  auto writes = [&] {
    setenv("KIV_DEBUG_DIR", directory.c_str(), 1);
    return put(letters(8000)) && end(false) ? static_cast<int>(pipe_.writes) : 0;
  };
  EXPECT_EXIT(_exit(writes()), testing::ExitedWithCode(2), "");
  unlink((directory + "nodelayeor").c_str());
}

TEST_F(RecordTest, FailedSends) {
  const xdr_ops& ops = *xdrs_.ops;
  const int32_t unit = 1;
  // Nothing of a record left: it is dropped, what waits before it is not.
  ASSERT_TRUE(put("wait") && end(false));
  pipe_.room = 0;
  ASSERT_TRUE(put("lost"));
  EXPECT_FALSE(end());
  EXPECT_FALSE(put(letters(200))) << "half-way";
  pipe_.room = SIZE_MAX;
  EXPECT_FALSE(put("more") || ops.put_int32(&xdrs_, &unit) || end(false)) << "it has no rest";
  EXPECT_FALSE(xdrrec_is_broken(&xdrs_));
  ASSERT_TRUE(put("sent") && end());
  EXPECT_EQ(pipe_.outgoing, fragment("wait") + fragment("sent"));
  // A part left, of a fragment or of a record: nothing can follow, nor come.
  for (size_t room : {size_t{1}, size_t{100}}) {
    make(100);
    decode(fragment(letters(1000)));
    EXPECT_EQ(get(4), "abcd");
    pipe_.room = room;
    EXPECT_FALSE(put(letters(200)) || end());
    EXPECT_TRUE(xdrrec_is_broken(&xdrs_));
    pipe_.room = SIZE_MAX;
    EXPECT_TRUE(put("none"));
    EXPECT_FALSE(end() || skip() || xdrrec_at_record(&xdrs_));
    EXPECT_EQ(get(200), "failed");
  }
}

TEST_F(RecordTest, PositionsAndInlineStayInTheFragment) {
  const xdr_ops& ops = *xdrs_.ops;
  EXPECT_TRUE(ops.get_inline(&xdrs_, -1) == nullptr && ops.get_inline(&xdrs_, 97) == nullptr);
  EXPECT_FALSE(ops.control(&xdrs_, kXdrControlBytesAvailable, nullptr));
  EXPECT_EQ(ops.get_remaining(&xdrs_), kXdrRemainingUnknown);
  uint8_t* at = ops.get_inline(&xdrs_, 4);
  ASSERT_NE(at, nullptr);
  std::copy_n("abcd", 4, at);
  ASSERT_TRUE(put("efgh") && ops.set_position(&xdrs_, 4) && put("E") &&
              ops.get_position(&xdrs_) == 5);
  EXPECT_EQ(ops.get_inline(&xdrs_, 3), nullptr) << "not aligned";
  ASSERT_TRUE(!ops.set_position(&xdrs_, 9) && ops.set_position(&xdrs_, 8) && end());
  EXPECT_EQ(pipe_.outgoing, fragment("abcdEfgh"));
  EXPECT_NE(ops.get_inline(&xdrs_, 96), nullptr) << "all that the buffer holds";

  decode(fragment("abcd", false) + fragment("efghijkl") + fragment("tail"));
  EXPECT_EQ(get(4), "abcd");
  EXPECT_FALSE(ops.set_position(&xdrs_, 5)) << "the next fragment's";
  EXPECT_TRUE(ops.set_position(&xdrs_, 4) && ops.set_position(&xdrs_, 2));
  EXPECT_EQ(get(6), "cdefgh");
  EXPECT_TRUE(ops.get_position(&xdrs_) == 4 && ops.set_position(&xdrs_, 8) &&
              ops.set_position(&xdrs_, 4));
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
  for (bool slow : {false, true}) {
    make(100);
    pipe_.most = slow ? 1 : SIZE_MAX;
    decode(fragment(letters(1001) + letters(1007), false) + fragment("number: \xFFull"));
    EXPECT_EQ(get(1001), letters(1001));
    EXPECT_EQ(pipe_.taken, 1005 + (slow ? 0U : 99U)) << "all but one of 100 bytes";
    EXPECT_FALSE(xdrrec_at_header(&xdrs_));
    EXPECT_EQ(get(1007), letters(1007));
    int64_t wide = 0;
    EXPECT_TRUE(xdrs_.ops->get_int64(&xdrs_, &wide) && wide == 0x6E756D6265723A20);
    long narrow = 0;
    EXPECT_TRUE(xdrs_.ops->get_long(&xdrs_, &narrow) && narrow == 0xFF756C6C);
    EXPECT_FALSE(xdrs_.ops->get_long(&xdrs_, &narrow)) << "the record's end";
    EXPECT_TRUE(skip());
    EXPECT_EQ(get(1), "failed");
  }
  for (uint32_t count : {150U, 250U}) {  // into the buffer, and past it
    make(100);
    pipe_.stalls = true;
    decode(fragment(letters(400)));
    EXPECT_TRUE(get(count) == "failed" && get(count) == "failed") << "the header, the data";
    EXPECT_EQ(get(100), letters(196).substr(96)) << "what came is not lost";
  }
}

TEST_F(RecordTest, RefusedInput) {
  std::string empties;
  for (int i = 0; i < 1500; ++i) empties += fragment("", false);
  const std::string too_large = "frag size 16777217, closing connection\n";
  const std::pair<std::string, std::string> cases[] = {
      {from_hex("01000000") + "abcd", ""},  // 16 MiB
      {from_hex("01000001") + "abcd", too_large},
      {from_hex("81000001") + "abcd", too_large},
      {empties + fragment("ab", false) + empties + fragment("cd"), ""}};
  for (const auto& [input, told] : cases) {
    make(100);
    decode(input);
    std::string got;
    const std::string text = printed(1, [&] { got = get(4); });
    EXPECT_EQ(got, told.empty() ? "abcd" : "failed");
    EXPECT_TRUE(text.ends_with(told) && text.empty() == told.empty()) << text;
    EXPECT_EQ(get(200), "failed");
    EXPECT_TRUE(xdrrec_is_broken(&xdrs_) != told.empty() && __brix_xdrrec_eof(&xdrs_));
  }
  make(100);
  decode(fragment("abc") + fragment("d"));
  EXPECT_EQ(get(3), "abc");
  EXPECT_THAT(printed(1, [this] { EXPECT_FALSE(skip()) << "broken units"; }),
              HasSubstr("xdrrec_skiprecord unaligned input pointer\n"));
  EXPECT_TRUE(xdrrec_is_broken(&xdrs_) && __brix_xdrrec_eof(&xdrs_));
}

}  // namespace

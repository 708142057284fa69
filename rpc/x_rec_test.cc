#include "rpc/x_rec.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <vector>

#include "tests/failing_malloc.h"
#include "tests/lab.h"
#include "tests/tcp_peer.h"

namespace {

using lab::fragment;

// A transport over strings, which hands out and takes pieces of random sizes.
struct Pipe {
  std::string incoming;
  size_t taken = 0;
  std::string outgoing;
  std::vector<std::string> writes;
  size_t room = SIZE_MAX;      // bytes until writing fails
  uint32_t most = UINT32_MAX;  // bytes of one read
  bool random = false;
  std::mt19937 generator{1};
};

int64_t pipe_read(void* transport, void* buffer, uint32_t length, void* second,
                  uint32_t second_length) {
  auto* pipe = static_cast<Pipe*>(transport);
  size_t count =
      std::min<size_t>(pipe->incoming.size() - pipe->taken, size_t{length} + second_length);
  count = std::min<size_t>(count, pipe->most);
  if (count > 1 && pipe->random) count = 1 + pipe->generator() % count;
  size_t direct = std::min<size_t>(count, length);
  pipe->incoming.copy(static_cast<char*>(buffer), direct, pipe->taken);
  if (count > direct) {
    pipe->incoming.copy(static_cast<char*>(second), count - direct, pipe->taken + direct);
  }
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
  pipe->outgoing += bytes;
  pipe->writes.push_back(bytes);
  return static_cast<int64_t>(bytes.size());
}

class RecordTest : public testing::Test {
 protected:
  void SetUp() override { make(100, 100); }
  void TearDown() override { xdrs_.ops->destroy(&xdrs_); }

  void make(uint32_t send_size, uint32_t receive_size) {
    if (xdrs_.ops != nullptr) xdrs_.ops->destroy(&xdrs_);
    ASSERT_TRUE(
        __brix_xdrrec_create(&xdrs_, send_size, receive_size, &pipe_, pipe_read, pipe_write));
  }

  void decode(const std::string& incoming) {
    pipe_.incoming += incoming;
    xdrs_.operation = xdr_op::kDecode;
  }

  bool put(const std::string& bytes) {
    return xdrs_.ops->put_bytes(&xdrs_, bytes.data(), static_cast<uint32_t>(bytes.size()));
  }

  // `count` bytes of the record, or nothing.
  std::string get(uint32_t count) {
    std::string bytes(count, '?');
    return xdrs_.ops->get_bytes(&xdrs_, bytes.data(), count) ? bytes : "failed";
  }

  XDR xdrs_{};
  Pipe pipe_;
};

std::string letters(size_t count) {
  std::string bytes(count, '\0');
  for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>(i * 7 + i / 251);
  return bytes;
}

TEST_F(RecordTest, EveryKindOfValueGoesOutAndComesBack) {
  const long whole = -2;
  const int32_t narrow = -3;
  const int64_t wide = 0x0102030405060708;
  ASSERT_TRUE(xdrs_.ops->put_long(&xdrs_, &whole) && xdrs_.ops->put_int32(&xdrs_, &narrow) &&
              xdrs_.ops->put_int64(&xdrs_, &wide) && put("abcd"));
  EXPECT_EQ(xdrs_.ops->get_position(&xdrs_), 20U);
  EXPECT_TRUE(pipe_.writes.empty());
  ASSERT_TRUE(__brix_xdrrec_endofrecord(&xdrs_, true));
  EXPECT_EQ(to_hex(pipe_.outgoing), "80000014FFFFFFFEFFFFFFFD010203040506070861626364");

  for (uint32_t most : {1U, 3U, 100U}) {
    pipe_.most = most;
    decode(pipe_.outgoing);
    ASSERT_TRUE(__brix_xdrrec_skiprecord(&xdrs_));
    long a = 0;
    int32_t b = 0;
    int64_t c = 0;
    EXPECT_TRUE(xdrs_.ops->get_long(&xdrs_, &a) && xdrs_.ops->get_int32(&xdrs_, &b) &&
                xdrs_.ops->get_int64(&xdrs_, &c));
    EXPECT_EQ(a, 0xFFFFFFFE) << "extended by zeros";
    EXPECT_EQ(b, narrow);
    EXPECT_EQ(c, wide);
    EXPECT_EQ(get(4), "abcd");
    EXPECT_EQ(get(1), "failed") << "the record's end";
  }
  EXPECT_EQ(xdrs_.ops->get_remaining(&xdrs_), kXdrRemainingUnknown);
  EXPECT_FALSE(xdrs_.ops->control(&xdrs_, kXdrControlBytesAvailable, nullptr));
}

TEST_F(RecordTest, WhatDoesNotFitLeavesAsAFragment) {
  const std::string bytes = letters(196);
  ASSERT_TRUE(put(bytes.substr(0, 96)));
  EXPECT_TRUE(pipe_.writes.empty()) << "96 bytes and a header fill the buffer of 100";
  ASSERT_TRUE(put(bytes.substr(96)) && __brix_xdrrec_endofrecord(&xdrs_, true));
  EXPECT_EQ(to_hex(pipe_.outgoing),
            to_hex(fragment(bytes.substr(0, 96), false) + fragment(bytes.substr(96, 96), false) +
                   fragment(bytes.substr(192))));
}

TEST_F(RecordTest, LargePutsGoOutWithWhatIsBuffered) {
  for (uint32_t size : {kXdrRecLargePut - 1, kXdrRecLargePut, kXdrRecLargePut + 3}) {
    make(100, 100);
    pipe_.writes.clear();
    const std::string bytes = letters(size);
    ASSERT_TRUE(put("head") && put(bytes) && __brix_xdrrec_endofrecord(&xdrs_, true));
    if (size < kXdrRecLargePut) {
      EXPECT_THAT(pipe_.writes, testing::Each(testing::SizeIs(testing::Le(100U))));
      continue;
    }
    ASSERT_EQ(pipe_.writes.size(), 2U);
    EXPECT_TRUE(pipe_.writes[0] == fragment("head" + bytes.substr(0, size - size % 4), false));
    EXPECT_EQ(pipe_.writes[1], fragment(bytes.substr(size - size % 4)));
  }
}

TEST_F(RecordTest, FragmentsStayAcceptable) {
  make(kXdrRecMaxFragment * 3, 100);
  const std::string small(kXdrRecLargePut - 8, 'x');
  for (size_t put_bytes = 0; put_bytes <= kXdrRecMaxFragment; put_bytes += small.size()) {
    ASSERT_TRUE(put(small));
  }
  ASSERT_EQ(pipe_.writes.size(), 1U) << "a buffer that was wished larger";
  EXPECT_EQ(to_hex(pipe_.writes[0].substr(0, 4)), "01000000");
  make(100, 100);
  pipe_.writes.clear();
  const std::string bytes(kXdrRecMaxFragment, 'x');
  ASSERT_TRUE(put("head") && put(bytes) && __brix_xdrrec_endofrecord(&xdrs_, true));
  ASSERT_EQ(pipe_.writes.size(), 2U);
  EXPECT_EQ(pipe_.writes[0].size(), kXdrRecMaxFragment + 4);
  EXPECT_EQ(to_hex(pipe_.writes[0].substr(0, 4)), "01000000");
  EXPECT_EQ(pipe_.writes[1], fragment("xxxx"));
}

TEST_F(RecordTest, DelayedEnds) {
  // A sixteenth of the buffer has to be free: of 160 bytes more than 10.
  const struct {
    size_t size;
    bool delayed;
  } cases[] = {{0, true}, {145, true}, {146, false}, {156, false}};
  for (const auto& [size, delayed] : cases) {
    make(160, 100);
    pipe_.outgoing.clear();
    ASSERT_TRUE(put(letters(size)) && __brix_xdrrec_endofrecord(&xdrs_, false));
    EXPECT_EQ(pipe_.outgoing.empty(), delayed) << size;
    ASSERT_TRUE(put("next") && __brix_xdrrec_endofrecord(&xdrs_, true));
    EXPECT_EQ(to_hex(pipe_.outgoing), to_hex(fragment(letters(size)) + fragment("next")));
  }
  // An empty last fragment waits as well, one with data does not.
  pipe_.outgoing.clear();
  ASSERT_TRUE(put(letters(8000)) && __brix_xdrrec_endofrecord(&xdrs_, false));
  EXPECT_EQ(pipe_.outgoing.size(), 8004U);
  ASSERT_TRUE(put(letters(8001)) && __brix_xdrrec_endofrecord(&xdrs_, false));
  EXPECT_TRUE(pipe_.outgoing == fragment(letters(8000), false) + fragment("") +
                                    fragment(letters(8000), false) +
                                    fragment(letters(8001).substr(8000)));
}

TEST_F(RecordTest, FailedSends) {
  // Nothing of a record left: it is dropped, what waits before it is not.
  ASSERT_TRUE(put("wait") && __brix_xdrrec_endofrecord(&xdrs_, false));
  pipe_.room = 0;
  ASSERT_TRUE(put("lost"));
  EXPECT_FALSE(__brix_xdrrec_endofrecord(&xdrs_, true));
  EXPECT_FALSE(xdrrec_is_broken(&xdrs_));
  EXPECT_FALSE(put(letters(200))) << "half-way";
  EXPECT_FALSE(put("more")) << "the rest of that record is not taken for one";
  EXPECT_FALSE(__brix_xdrrec_endofrecord(&xdrs_, true));
  pipe_.room = SIZE_MAX;
  ASSERT_TRUE(put("sent") && __brix_xdrrec_endofrecord(&xdrs_, true));
  EXPECT_EQ(to_hex(pipe_.outgoing), to_hex(fragment("wait") + fragment("sent")));
  // A part left: nothing can follow.
  pipe_.room = 3;
  ASSERT_TRUE(put("half"));
  EXPECT_FALSE(__brix_xdrrec_endofrecord(&xdrs_, true));
  EXPECT_TRUE(xdrrec_is_broken(&xdrs_));
  pipe_.room = SIZE_MAX;
  ASSERT_TRUE(put("none"));
  EXPECT_FALSE(__brix_xdrrec_endofrecord(&xdrs_, true));
  EXPECT_FALSE(__brix_xdrrec_skiprecord(&xdrs_));
}

TEST_F(RecordTest, PositionsStayInTheFragment) {
  ASSERT_TRUE(put("abcdefgh") && xdrs_.ops->set_position(&xdrs_, 4) && put("E"));
  EXPECT_FALSE(xdrs_.ops->set_position(&xdrs_, 9));
  ASSERT_TRUE(xdrs_.ops->set_position(&xdrs_, 8) && __brix_xdrrec_endofrecord(&xdrs_, true));
  EXPECT_EQ(pipe_.outgoing, fragment("abcdEfgh"));

  decode(fragment("abcd", false) + fragment("efghijkl"));
  ASSERT_TRUE(__brix_xdrrec_skiprecord(&xdrs_));
  EXPECT_EQ(get(4), "abcd");
  EXPECT_FALSE(xdrs_.ops->set_position(&xdrs_, 5)) << "the next fragment's";
  EXPECT_TRUE(xdrs_.ops->set_position(&xdrs_, 2));
  EXPECT_EQ(get(4), "cdef");
  EXPECT_EQ(xdrs_.ops->get_position(&xdrs_), 2U);
  EXPECT_TRUE(xdrs_.ops->set_position(&xdrs_, 0) && xdrs_.ops->set_position(&xdrs_, 8));
  EXPECT_EQ(get(1), "failed");
}

TEST_F(RecordTest, InlineNeedsAlignedBufferedData) {
  EXPECT_EQ(xdrs_.ops->get_inline(&xdrs_, -1), nullptr);
  EXPECT_EQ(xdrs_.ops->get_inline(&xdrs_, 97), nullptr);
  uint8_t* at = xdrs_.ops->get_inline(&xdrs_, 4);
  ASSERT_NE(at, nullptr);
  std::copy_n("abcd", 4, at);
  ASSERT_TRUE(put("e"));
  EXPECT_EQ(xdrs_.ops->get_inline(&xdrs_, 4), nullptr) << "not aligned";
  ASSERT_TRUE(put("fgh") && __brix_xdrrec_endofrecord(&xdrs_, true));
  EXPECT_EQ(pipe_.outgoing, fragment("abcdefgh"));

  decode(pipe_.outgoing + fragment("tail"));
  ASSERT_TRUE(__brix_xdrrec_skiprecord(&xdrs_));
  EXPECT_EQ(xdrs_.ops->get_inline(&xdrs_, 4), nullptr) << "nothing buffered yet";
  EXPECT_EQ(get(3), "abc");
  EXPECT_EQ(xdrs_.ops->get_inline(&xdrs_, 4), nullptr) << "not aligned";
  EXPECT_EQ(get(1), "d");
  EXPECT_EQ(xdrs_.ops->get_inline(&xdrs_, 8), nullptr) << "of two records";
  at = xdrs_.ops->get_inline(&xdrs_, 4);
  ASSERT_NE(at, nullptr);
  EXPECT_EQ(std::string(at, at + 4), "efgh");
}

TEST_F(RecordTest, SkippingAndTheEndOfInput) {
  std::string thousand;
  for (int i = 0; i < 999; ++i) thousand += fragment("abc", false);
  decode(fragment("rest of it", false) + fragment("go") + thousand + fragment("abc") +
         fragment("last"));
  ASSERT_TRUE(__brix_xdrrec_skiprecord(&xdrs_));
  EXPECT_EQ(get(4), "rest");
  EXPECT_FALSE(__brix_xdrrec_eof(&xdrs_));
  ASSERT_TRUE(__brix_xdrrec_skiprecord(&xdrs_));
  EXPECT_EQ(get(2998), [] {
    std::string wanted;
    for (int i = 0; i < 1000; ++i) wanted += "abc";
    return wanted.substr(0, 2998);
  }());
  ASSERT_TRUE(__brix_xdrrec_skiprecord(&xdrs_));
  EXPECT_TRUE(__brix_xdrrec_eof(&xdrs_));
}

TEST_F(RecordTest, ATransferThatFailsIsTakenUpAgain) {
  const std::string record = fragment("ab", false) + fragment("cdefgh");
  ASSERT_TRUE(__brix_xdrrec_skiprecord(&xdrs_));
  std::string got;
  for (char byte : record) {
    decode(std::string(1, byte));
    char one = 0;
    if (xdrs_.ops->get_bytes(&xdrs_, &one, 1)) got += one;
  }
  EXPECT_EQ(got, "abcdefgh");
}

TEST_F(RecordTest, RefusedInput) {
  const std::string empty = fragment("", false);
  std::string empties;
  for (uint32_t i = 0; i < kXdrRecMaxEmptyFragments; ++i) empties += empty;
  const struct {
    std::string input, complaint;
    bool accepted;
  } cases[] = {{from_hex("01000000") + "abcd", "", true},  // 16 MiB
               {from_hex("01000001") + "abcd", "frag size 16777217, closing connection\n", false},
               {from_hex("FFFFFFFF") + "abcd", "frag size 2147483647, closing connection\n", false},
               {empties + fragment("abcd"), "", true},
               {empties + empty + fragment("abcd"), "", false},
               {empties + fragment("ab", false) + empties + fragment("cd"), "", true}};
  for (const auto& [input, complaint, accepted] : cases) {
    make(100, 100);
    pipe_ = {};
    decode(input);
    ASSERT_TRUE(__brix_xdrrec_skiprecord(&xdrs_));
    testing::internal::CaptureStderr();
    EXPECT_EQ(get(4), accepted ? "abcd" : "failed");
    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::EndsWith(complaint));
    EXPECT_EQ(xdrrec_is_broken(&xdrs_), !accepted);
    EXPECT_TRUE(accepted || __brix_xdrrec_eof(&xdrs_));
  }
}

TEST_F(RecordTest, ARecordOfBrokenUnits) {
  decode(fragment("abc") + fragment("d"));
  ASSERT_TRUE(__brix_xdrrec_skiprecord(&xdrs_));
  EXPECT_EQ(get(3), "abc");
  EXPECT_FALSE(__brix_xdrrec_skiprecord(&xdrs_));
  EXPECT_TRUE(xdrrec_is_broken(&xdrs_));
}

TEST(RecordMemory, NoneLeft) {
  FailingMalloc none(0);
  XDR xdrs{};
  EXPECT_FALSE(__brix_xdrrec_create(&xdrs, 0, 0, nullptr, pipe_read, pipe_write));
  EXPECT_EQ(errno, ENOMEM);
}

// In a process that finds these switches: what each write sends.
void show_writes(const char* directory) {
  setenv("KIV_DEBUG_DIR", directory, 1);
  Pipe pipe;
  XDR xdrs{};
  if (!__brix_xdrrec_create(&xdrs, 0, 0, &pipe, pipe_read, pipe_write)) _exit(1);
  const std::string bytes = letters(8000);
  bool put =
      xdrs.ops->put_bytes(&xdrs, bytes.data(), 8000) && __brix_xdrrec_endofrecord(&xdrs, false);
  xdrs.ops->destroy(&xdrs);
  _exit(put ? static_cast<int>(pipe.writes.size()) : 0);
}

class RecordSwitches : public LabTest {};

TEST_F(RecordSwitches, WithoutDelayedEnds) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(show_writes("/run/nowhere"), testing::ExitedWithCode(1), "");
  lab::write_file("/run/nodelayeor", "");
  EXPECT_EXIT(show_writes("/run"), testing::ExitedWithCode(2), "");
}

// Records of all sizes, cut at random on both sides of the stream.
TEST_F(RecordTest, RandomRecordsComeOnceAndInOrder) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__clang__)
  constexpr uint32_t kLargest = 2 << 20;
#else
  constexpr uint32_t kLargest = 20 << 20;
#endif
  std::mt19937 random(7);
  pipe_.random = true;
  for (uint32_t size : {0U, 4U, 96U, 8000U, 8004U, 70000U, kLargest}) {
    make(100 + static_cast<uint32_t>(random() % 9000),
         100 + static_cast<uint32_t>(random() % 9000));
    pipe_.outgoing.clear();
    pipe_.incoming.clear();
    pipe_.taken = 0;
    const std::string record = letters(size);
    xdrs_.operation = xdr_op::kEncode;
    for (size_t at = 0; at < size;) {
      size_t piece = std::min<size_t>(size - at, 1 + random() % (at % 3 == 0 ? 20000 : size));
      ASSERT_TRUE(put(record.substr(at, piece)));
      at += piece;
    }
    ASSERT_TRUE(__brix_xdrrec_endofrecord(&xdrs_, false) && put("end.") &&
                __brix_xdrrec_endofrecord(&xdrs_, true));
    // Comes back as it went out, and cut anew.
    std::string cut;
    for (size_t at = 0; at < size;) {
      size_t piece = std::min<size_t>(size - at, 1 + random() % (1 + size / 3));
      cut += fragment(record.substr(at, piece), false);
      at += piece;
    }
    decode(pipe_.outgoing + cut + fragment("") + fragment("over"));
    for (const char* after : {"end.", "over"}) {
      ASSERT_TRUE(__brix_xdrrec_skiprecord(&xdrs_));
      std::string got;
      while (got.size() < size) {
        got += get(std::min<uint32_t>(size - static_cast<uint32_t>(got.size()),
                                      1 + static_cast<uint32_t>(random() % (1 + size / 2))));
      }
      ASSERT_TRUE(got == record) << size;
      EXPECT_EQ(get(1), "failed");
      ASSERT_TRUE(__brix_xdrrec_skiprecord(&xdrs_));
      EXPECT_EQ(get(4), after);
    }
  }
}

}  // namespace

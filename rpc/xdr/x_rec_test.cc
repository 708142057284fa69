#include "rpc/xdr/x_rec.h"

#include "rpc/xdr/io_switches.h"
#include "tests/locales.h"
#include "tests/rpc_server.h"
#include "tests/work.h"
#include "tests/xdr_streams.h"

namespace {

using machine::fragment;

std::string letters(size_t count) {
  std::string bytes = "abcdefghijklmnopqrstuvwxyz";
  while (bytes.size() < count) bytes += bytes;
  return bytes.substr(0, count);
}

class RecordTest : public testing::Test {
 protected:
  ~RecordTest() override { xdrs_.ops->destroy(&xdrs_); }

  // A stream with that size of the sending buffer.
  void make(uint32_t send_size = 100) {
    if (xdrs_.ops != nullptr) xdrs_.ops->destroy(&xdrs_);
    pipe_ = {};
    ASSERT_TRUE(__brix_xdrrec_create(&xdrs_, send_size, 100, &pipe_, Pipe::read, Pipe::write));
  }

  // A stream at the first record of `incoming`.
  void decode(const std::string& incoming) {
    make();
    pipe_.incoming = incoming;
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

TEST_F(RecordTest, CutsRecordsIntoFragments) {
  const struct {
    uint32_t buffer;                           // size
    std::vector<size_t> puts;                  // sizes of the puts of a record
    std::vector<size_t> fragments;             // lengths of those before the last one
    bool waits;                                // for the next record, or was sent
  } rows[] = {{100, {96}, {}, false},          // with its header it fills the buffer
              {100, {89}, {}, true},           // no room for a unit is left
              {99, {3995, 2}, {3996}, false},  // in a buffer of 4000
              {100, {96, 100}, {96, 96}, false},
              {160, {146}, {}, false},  // a sixteenth is free, but for a byte
              {9000, {7999, 8000}, {15999}, true},
              {9000, {8000, 4}, {8000}, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.puts));
    make(row.buffer);
    std::string record, wanted;
    for (size_t size : row.puts) {
      const std::string bytes = letters(size);
      ASSERT_TRUE(put(bytes));
      record += bytes;
    }
    ASSERT_TRUE(end(false));
    EXPECT_EQ(pipe_.writes, row.fragments.size() + (row.waits ? 0 : 1));
    const int32_t next = 0x6E657874;
    ASSERT_TRUE(xdrs_.ops->put_int32(&xdrs_, &next));
    ASSERT_TRUE(end());
    for (size_t length : row.fragments) {
      wanted += fragment(record.substr(0, length), false);
      record.erase(0, length);
    }
    EXPECT_TRUE(pipe_.outgoing == wanted + fragment(record) + fragment("next"));
  }
}

TEST_F(RecordTest, DropsARecordOfWhichNothingLeft) {
  make();
  ASSERT_TRUE(put("wait"));
  ASSERT_TRUE(end(false));
  pipe_.room = 0;
  ASSERT_TRUE(put("lost"));
  EXPECT_FALSE(put(letters(200)));
  pipe_.room = SIZE_MAX;
  EXPECT_FALSE(put("more"));  // it has no rest
  EXPECT_FALSE(end(false));
  EXPECT_FALSE(xdrrec_is_broken(&xdrs_));
  ASSERT_TRUE(put("sent"));
  ASSERT_TRUE(end());
  EXPECT_EQ(pipe_.outgoing, fragment("wait") + fragment("sent"));
}

TEST_F(RecordTest, BreaksWhenAPartOfARecordLeft) {
  for (size_t room : {1U, 100U}) {  // a part of a fragment, and one of the fragments
    decode(fragment(letters(1000)));
    pipe_.room = room;
    const std::string read = get(200);
    EXPECT_FALSE(put(read));
    EXPECT_FALSE(end());
    pipe_.room = SIZE_MAX;
    EXPECT_TRUE(xdrrec_is_broken(&xdrs_));
    EXPECT_FALSE(end());            // nothing can follow
    EXPECT_EQ(get(200), "failed");  // nor come
    EXPECT_EQ(get(1), "failed");
    EXPECT_FALSE(skip());
  }
}

TEST_F(RecordTest, SendsFromWithinItsBuffer) {
  make();
  const xdr_ops& ops = *xdrs_.ops;
  EXPECT_TRUE(ops.put_bytes(&xdrs_, nullptr, 0));
  EXPECT_FALSE(ops.put_bytes(&xdrs_, nullptr, 1));
  EXPECT_EQ(ops.get_inline(&xdrs_, 97), nullptr);
  uint8_t* at = ops.get_inline(&xdrs_, 96);
  ASSERT_NE(at, nullptr);
  std::copy_n("abcd", 4, at);
  for (uint32_t to : {97U, 96U, 3U}) EXPECT_EQ(ops.set_position(&xdrs_, to), to < 97);
  EXPECT_EQ(ops.get_inline(&xdrs_, 3), nullptr);  // not aligned
  EXPECT_TRUE(end());
  EXPECT_EQ(pipe_.outgoing, fragment("abc"));
}

TEST_F(RecordTest, MovesWithinAFragmentOfInput) {
  decode(fragment("abcd", false) + fragment("efghijkl"));
  const xdr_ops& ops = *xdrs_.ops;
  EXPECT_EQ(get(4), "abcd");
  EXPECT_FALSE(ops.set_position(&xdrs_, 5));  // the next fragment's
  EXPECT_TRUE(ops.set_position(&xdrs_, 2));
  EXPECT_EQ(get(6), "cdefgh");
  for (uint32_t to : {8U, 4U}) EXPECT_TRUE(ops.set_position(&xdrs_, to));
  EXPECT_EQ(ops.get_inline(&xdrs_, 8), nullptr);  // more than is left
  EXPECT_EQ(*ops.get_inline(&xdrs_, 4), 'i');
  EXPECT_FALSE(ops.control(&xdrs_, kXdrControlBytesAvailable, nullptr));
}

TEST_F(RecordTest, SkipsTheRestOfARecord) {
  make();
  EXPECT_FALSE(xdrrec_at_record(&xdrs_));  // behind an empty one
  decode(fragment("rest", false) + fragment(" of it", false) + fragment("go") + fragment("last"));
  EXPECT_TRUE(xdrrec_at_record(&xdrs_));
  EXPECT_EQ(get(6), "rest o");
  EXPECT_FALSE(xdrrec_at_record(&xdrs_));
  EXPECT_FALSE(__brix_xdrrec_eof(&xdrs_));
  ASSERT_TRUE(skip());
  EXPECT_EQ(get(4), "last");
  EXPECT_TRUE(__brix_xdrrec_eof(&xdrs_));
  EXPECT_TRUE(xdrrec_at_header(&xdrs_));
  decode(fragment("the rest").substr(0, 8));
  EXPECT_FALSE(skip());
}

TEST_F(RecordTest, ReadsLargePiecesPastItsBuffer) {
  decode(fragment(letters(1001), false) + fragment("number: \xFFull123") + fragment("next"));
  pipe_.most = 151;
  EXPECT_EQ(get(1001), letters(1001));
  EXPECT_FALSE(xdrrec_at_header(&xdrs_));
  int64_t wide = 0;
  EXPECT_TRUE(xdrs_.ops->get_int64(&xdrs_, &wide));
  EXPECT_EQ(wide, 0x6E756D6265723A20);
  long narrow = 0;
  EXPECT_TRUE(xdrs_.ops->get_long(&xdrs_, &narrow));
  EXPECT_EQ(narrow, 0xFF756C6C);
  EXPECT_FALSE(xdrs_.ops->get_long(&xdrs_, &narrow));  // the record's end
  EXPECT_TRUE(skip());
  EXPECT_EQ(get(4), "next");
}

TEST_F(RecordTest, BreaksWhenARecordIsNoWholeUnits) {
  decode(fragment("abc") + fragment("d"));
  EXPECT_EQ(printed(1, [this] { EXPECT_FALSE(skip()); }),
            "kivtrap: xdrrec_skiprecord unaligned input pointer\n");
  EXPECT_TRUE(__brix_xdrrec_eof(&xdrs_));
}

TEST(IoSwitches, AreTurnedOffByFiles) {
  in_locale("", [] {
    const TemporaryDirectory place;
    setenv("KIV_DEBUG_DIR", place.path().c_str(), 1);
    machine::write_file(place.path() + "/nodelayeor", "");
    const auto& [gathers, scatters, delays_ends] = rpc_get_io_switches();
    EXPECT_TRUE(gathers);
    EXPECT_TRUE(scatters);
    EXPECT_FALSE(delays_ends);
  });
}

}  // namespace

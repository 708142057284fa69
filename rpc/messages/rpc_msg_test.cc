// Call and reply messages against literal bytes (RFC 5531, section 9).
#include "rpc/messages/rpc_msg.h"

#include "rpc/messages/rpc_cmsg.h"
#include "rpc/messages/rpc_err.h"
#include "rpc/messages/rpc_prot.h"
#include "tests/xdr_streams.h"

namespace {

constexpr xdrproc_t kAuthField = xdr_filter<__brix_xdr_opaque_auth>;
constexpr xdrproc_t kCall = xdr_filter<__brix_xdr_callmsg>;

TEST(RpcMessage, BuildsAndReadsCalls) {
  uint8_t body[] = {10, 11, 12};
  rpc_call_message call = {0x11223344,      kRpcCall, 2, 100000, 2, 3, {kAuthSystem, body, 3},
                           __brix_null_auth};
  const std::string wire = from_hex(
      "11223344 00000000 00000002 000186A0 00000002 00000003 00000001 00000003 0A0B0C00"
      "00000000 00000000");
  EXPECT_EQ(encoded(kCall, &call), to_hex(wire));
  rpc_call_message back = {};
  EXPECT_TRUE(__brix_xdr_callmsg(TestStream(wire, xdr_op::kDecode).get(), &back));
  EXPECT_EQ(encoded(kCall, &back), to_hex(wire));
  __brix_xdr_free(kCall, &back);
  expect_failures_release<rpc_call_message>(kCall, wire);
  for (size_t word : {1U, 2U}) {  // direction, RPC version
    std::string other = wire;
    other[word * 4 + 3] = 3;
    EXPECT_FALSE(__brix_xdr_callmsg(TestStream(other, xdr_op::kDecode).get(), &back)) << word;
    EXPECT_EQ(encoded(kCall, &back), "fails");  // what was refused does not go out either
  }
  rpc_call_message header = {9, 7, 7, 1, 2, 0, {}, {}};
  EXPECT_EQ(encoded(xdr_filter<__brix_xdr_callhdr>, &header),
            "0000000900000000000000020000000100000002");
  EXPECT_FALSE(__brix_xdr_callhdr(TestStream(wire, xdr_op::kDecode).get(), &header));
}

TEST(RpcMessage, BoundsAuthBodies) {
  std::vector<uint8_t> body(32748);
  for (auto [length, passes] : {std::pair{32744U, true}, {32745U, false}}) {
    rpc_call_message call = {1, kRpcCall, 2, 3, 4, 5, {1, body.data(), length}, __brix_null_auth};
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(encoded(kCall, &call) != "fails", passes) << length;
      std::swap(call.credential, call.verifier);
    }
    std::string wire = from_hex("00000001 00007FE9") + std::string(32748, 'x');
    wire[7] = static_cast<char>(length - 0x7F00);
    opaque_auth back = {};
    EXPECT_EQ(__brix_xdr_opaque_auth(TestStream(wire, xdr_op::kDecode).get(), &back), passes);
    __brix_xdr_free(kAuthField, &back);
  }
  uint8_t block[] = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(encoded(xdr_filter<__brix_xdr_des_block>, block), "0102030405060708");
}

TEST(RpcMessage, TellsWhatAReplyMeans) {
  const std::string reply = "00000009 00000001 ";
  const std::string accepted = reply + "00000000 00000000 00000000 ";
  constexpr int kRefused = -1;  // it does not decode
  const std::tuple<std::string, int, long, long> cases[] = {
      {accepted + "00000000 0000002A", RPC_SUCCESS, 0, 0},
      {accepted + "00000001", 8, 0, 0},
      {accepted + "00000002 00000003 FFFFFFFF", 9, 3, 4294967295},
      {accepted + "00000003", 10, 0, 0},
      {accepted + "00000004", 11, 0, 0},
      {accepted + "00000005", 12, 0, 0},
      {accepted + "00000006", 16, 0, 6},
      {accepted + "FFFFFFFF", 16, 0, -1},
      {reply + "00000001 00000000 00000002 00000003", 6, 2, 3},
      {reply + "00000001 00000001 00000009", 7, 9, 0},
      {reply + "00000001 00000002 00000000", kRefused, 0, 0},  // denied for no known reason
      {reply + "00000002 00000000 00000000", kRefused, 0, 0},  // neither accepted nor denied
      {reply + "00000000 00000002 00007FE9", kRefused, 0, 0},  // a verifier that is too long
      {"00000009 00000000 00000000 00000000 00000000 00000001", kRefused, 0, 0}};  // a call
  for (const auto& [hex, status, s1, s2] : cases) {
    SCOPED_TRACE(hex);
    uint32_t result = 0;
    rpc_reply_message message = {};
    message.accepted.results = &result;
    message.accepted.results_filter = xdr_filter<__brix_xdr_u_int>;
    TestStream in(from_hex(hex), xdr_op::kDecode);
    ASSERT_EQ(__brix_xdr_replymsg(in.get(), &message), status != kRefused);
    if (status == kRefused) continue;
    rpc_err error;
    memset(&error, 0xFF, sizeof error);
    __brix_seterr_reply(&message, &error);
    EXPECT_TRUE(error.status == status && error.other.s1 == s1 && error.other.s2 == s2);
    EXPECT_EQ(result, status == RPC_SUCCESS ? 42 : 0);
    EXPECT_EQ(encoded(xdr_filter<__brix_xdr_replymsg>, &message), to_hex(from_hex(hex)));
  }
}

TEST(RpcMessage, ReleasesRepliesThatFailHalfWay) {
  char* text = nullptr;
  rpc_reply_message start = {};
  start.accepted.results = &text;
  start.accepted.results_filter = xdr_filter<__brix_xdr_wrapstring>;
  expect_failures_release(
      xdr_filter<__brix_xdr_replymsg>,
      from_hex("00000009 00000001 00000000 00000002 00000005 0102030405000000 00000000"
               "00000006 616263646566 0000"),
      start);
  EXPECT_EQ(text, nullptr);
}

}  // namespace

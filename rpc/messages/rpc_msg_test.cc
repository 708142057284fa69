// Call and reply messages against literal bytes (RFC 5531, section 9).
#include "rpc/messages/rpc_msg.h"

#include "rpc/messages/rpc_cmsg.h"
#include "rpc/messages/rpc_err.h"
#include "rpc/messages/rpc_prot.h"
#include "tests/xdr_streams.h"

namespace {

constexpr xdrproc_t kCall = xdr_filter<__brix_xdr_callmsg>;

TEST(RpcMessage, BuildsAndReadsCalls) {
  uint8_t body[] = {10, 11, 12};
  rpc_call_message call = {0x11223344,      kRpcCall, 2, 100000, 2, 3, {kAuthSystem, body, 3},
                           __brix_null_auth};
  const std::string hex =
      "112233440000000000000002000186A0000000020000000300000001000000030A0B0C00"
      "0000000000000000";
  EXPECT_EQ(encoded(kCall, &call), hex);
  expect_carried<rpc_call_message>(kCall, hex);
  for (size_t word : {1U, 2U}) {  // direction, RPC version
    std::string other = from_hex(hex);
    other[word * 4 + 3] = 3;
    EXPECT_FALSE(__brix_xdr_callmsg(TestStream(other).get(), &call)) << word;
    EXPECT_EQ(encoded(kCall, &call), "fails");  // what was refused does not go out either
  }
  rpc_call_message header = {9, 7, 7, 1, 2, 0, {}, {}};
  EXPECT_EQ(encoded(xdr_filter<__brix_xdr_callhdr>, &header),
            "0000000900000000000000020000000100000002");
  EXPECT_FALSE(__brix_xdr_callhdr(TestStream(from_hex(hex)).get(), &header));
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
    EXPECT_EQ(__brix_xdr_opaque_auth(TestStream(wire).get(), &back), passes);
    __brix_xdr_free(xdr_filter<__brix_xdr_opaque_auth>, &back);
  }
  uint8_t block[] = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(encoded(xdr_filter<__brix_xdr_des_block>, block), "0102030405060708");
}

TEST(RpcMessage, TellsWhatAReplyMeans) {
  const std::string reply = "0000000900000001";
  const std::string accepted = reply + "0000000000000002000000050102030405000000";
  const std::tuple<std::string, bool, int, long, long> cases[] = {
      {accepted + "00000000000000066162636465660000", true, RPC_SUCCESS, 0, 0},
      {accepted + "00000001", true, 8, 0, 0},
      {accepted + "0000000200000003FFFFFFFF", true, 9, 3, 4294967295},
      {accepted + "00000003", true, 10, 0, 0},
      {accepted + "00000004", true, 11, 0, 0},
      {accepted + "00000005", true, 12, 0, 0},
      {accepted + "00000006", true, 16, 0, 6},
      {accepted + "FFFFFFFF", true, 16, 0, -1},
      {reply + "00000001000000000000000200000003", true, 6, 2, 3},
      {reply + "000000010000000100000009", true, 7, 9, 0},
      {reply + "0000000100000002", false, 16, 1, 2},  // denied for no known reason
      {reply + "00000002", false, 16, 2, 0},          // neither accepted nor denied
      {reply + "000000000000000200007FE9", false, RPC_SUCCESS, 0, 0},  // the verifier is too long
      {"0000000900000000" + accepted.substr(16), false, RPC_SUCCESS, 0, 0}};  // a call
  for (const auto& [hex, decodes, status, s1, s2] : cases) {
    SCOPED_TRACE(hex);
    constexpr xdrproc_t kReply = xdr_filter<__brix_xdr_replymsg>;
    char* text = nullptr;
    rpc_reply_message message = {};
    message.accepted.results = &text;
    message.accepted.results_filter = xdr_filter<__brix_xdr_wrapstring>;
    if (decodes) expect_carried(kReply, hex, message);
    EXPECT_EQ(kReply(TestStream(from_hex(hex)).get(), &message), decodes);
    rpc_err error;
    memset(&error, 0xFF, sizeof error);
    __brix_seterr_reply(&message, &error);
    EXPECT_TRUE(error.status == status && error.other.s1 == s1 && error.other.s2 == s2);
    __brix_xdr_free(kReply, &message);
    EXPECT_EQ(text, nullptr);
  }
}

}  // namespace

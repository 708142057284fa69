// Call and reply messages against literal bytes (RFC 5531, section 9).
#include "rpc/messages/rpc_msg.h"

#include "rpc/client/clnt.h"
#include "rpc/messages/rpc_cmsg.h"
#include "rpc/messages/rpc_prot.h"
#include "tests/xdr_streams.h"

namespace {

constexpr xdrproc_t kAuthField = xdr_filter<__brix_xdr_opaque_auth>;
constexpr xdrproc_t kCall = xdr_filter<__brix_xdr_callmsg>;

rpc_call_message call_with(opaque_auth credential) {
  return {0x11223344, kRpcCall, 2, 100000, 2, 3, credential, __brix_null_auth};
}

constexpr char kCallHex[] =
    "11223344 00000000 00000002 000186A0 00000002 00000003 "
    "00000001 00000003 0A0B0C00 00000000 00000000";

TEST(RpcMessage, BuildsAndReadsCalls) {
  uint8_t body[] = {10, 11, 12};
  rpc_call_message call = call_with({kAuthSystem, body, 3});
  const std::string wire = from_hex(kCallHex);
  EXPECT_EQ(encoded(kCall, &call), to_hex(wire));
  rpc_call_message back = {};
  EXPECT_TRUE(__brix_xdr_callmsg(TestStream(wire, xdr_op::kDecode).get(), &back));
  EXPECT_EQ(encoded(kCall, &back), to_hex(wire));
  __brix_xdr_free(kCall, &back);
  expect_failures_release<rpc_call_message>(kCall, wire);
}

TEST(RpcMessage, RefusesWhatIsNoCall) {
  for (size_t word : {1U, 2U}) {  // direction, RPC version
    std::string wire = from_hex(kCallHex);
    wire[word * 4 + 3] = 3;
    rpc_call_message back = {};
    EXPECT_FALSE(__brix_xdr_callmsg(TestStream(wire, xdr_op::kDecode).get(), &back)) << word;
    EXPECT_EQ(encoded(kCall, &back), "fails");  // what was refused does not go out either
  }
}

TEST(RpcMessage, BoundsAuthBodies) {
  std::vector<uint8_t> body(32748);
  for (auto [length, passes] : {std::pair{32744U, true}, {32745U, false}}) {
    opaque_auth field = {kAuthSystem, body.data(), length};
    rpc_call_message call = call_with(field);
    EXPECT_EQ(encoded(kCall, &call) != "fails", passes) << length;
    std::swap(call.credential, call.verifier);
    EXPECT_EQ(encoded(kCall, &call) != "fails", passes) << length;
    std::string wire = from_hex("00000001 00007FE9") + std::string(32748, 'x');
    wire[7] = static_cast<char>(length - 0x7F00);
    opaque_auth back = {};
    EXPECT_EQ(__brix_xdr_opaque_auth(TestStream(wire, xdr_op::kDecode).get(), &back), passes);
    __brix_xdr_free(kAuthField, &back);
  }
  uint8_t block[] = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(encoded(xdr_filter<__brix_xdr_des_block>, block), "0102030405060708");
}

constexpr char kReply[] = "00000009 00000001 ";
constexpr char kAccepted[] = "00000009 00000001 00000000 00000000 00000000 ";

TEST(RpcMessage, TellsWhatAReplyMeans) {
  const std::string accepted = kAccepted;
  const std::string reply = kReply;
  const struct {
    std::string hex;
    clnt_stat status;
    long s1, s2;
  } cases[] = {
      {accepted + "00000000 0000002A", RPC_SUCCESS, 0, 0},
      {accepted + "00000001", RPC_PROGUNAVAIL, 0, 0},
      {accepted + "00000002 00000003 FFFFFFFF", RPC_PROGVERSMISMATCH, 3, 4294967295},
      {accepted + "00000003", RPC_PROCUNAVAIL, 0, 0},
      {accepted + "00000004", RPC_CANTDECODEARGS, 0, 0},
      {accepted + "00000005", RPC_SYSTEMERROR, 0, 0},
      {accepted + "00000006", RPC_FAILED, 0, 6},
      {accepted + "FFFFFFFF", RPC_FAILED, 0, -1},
      {reply + "00000001 00000000 00000002 00000003", RPC_VERSMISMATCH, 2, 3},
      {reply + "00000001 00000001 00000009", RPC_AUTHERROR, 9, 0},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.hex);
    uint32_t result = 0;
    rpc_reply_message message = {};
    message.accepted.results = &result;
    message.accepted.results_filter = xdr_filter<__brix_xdr_u_int>;
    TestStream in(from_hex(test.hex), xdr_op::kDecode);
    ASSERT_TRUE(__brix_xdr_replymsg(in.get(), &message));
    rpc_err error;
    memset(&error, 0xFF, sizeof error);
    __brix_seterr_reply(&message, &error);
    EXPECT_EQ(error.status, test.status);
    EXPECT_TRUE(error.other.s1 == test.s1 && error.other.s2 == test.s2);
    EXPECT_EQ(result, error.status == RPC_SUCCESS ? 42 : 0);
    EXPECT_EQ(encoded(xdr_filter<__brix_xdr_replymsg>, &message), to_hex(from_hex(test.hex)));
  }
}

TEST(RpcMessage, RefusesWhatIsNoReply) {
  const std::string reply = kReply;
  for (const std::string& hex :
       {reply + "00000001 00000002 00000000",  // denied for no known reason
        reply + "00000002 00000000 00000000",  // neither accepted nor denied
        reply + "00000000 00000002 00007FE9",  // a verifier that is too long
        std::string("00000009 00000000 00000000 00000000 00000000 00000001")}) {  // a call
    rpc_reply_message message = {};
    message.accepted.results_filter = __brix_xdr_void;
    EXPECT_FALSE(__brix_xdr_replymsg(TestStream(from_hex(hex), xdr_op::kDecode).get(), &message))
        << hex;
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

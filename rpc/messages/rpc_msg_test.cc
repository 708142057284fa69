// Call and reply messages against literal bytes (RFC 5531, section 9).
#include "rpc/messages/rpc_msg.h"

#include "rpc/messages/rpc_cmsg.h"
#include "rpc/messages/rpc_err.h"
#include "rpc/messages/rpc_prot.h"
#include "tests/xdr_streams.h"

namespace {

constexpr xdrproc_t kCall = xdr_filter<__brix_xdr_callmsg>;
constexpr xdrproc_t kReply = xdr_filter<__brix_xdr_replymsg>;

constexpr char kCallHex[] =
    "112233440000000000000002000186A0000000020000000300000001000000030A0B0C00"
    "0000000000000000";

TEST(RpcMessage, CarriesCalls) {
  uint8_t body[] = {10, 11, 12};
  rpc_call_message call = {0x11223344,      kRpcCall, 2, 100000, 2, 3, {kAuthSystem, body, 3},
                           __brix_null_auth};
  EXPECT_EQ(encoded(kCall, &call), kCallHex);
  expect_carried<rpc_call_message>(kCall, kCallHex);
}

TEST(RpcMessage, RefusesWhatIsNoCallOfVersion2) {
  for (size_t word : {1U, 2U}) {  // direction, RPC version
    std::string other = from_hex(kCallHex);
    other[word * 4 + 3] = 3;
    rpc_call_message call = {};
    EXPECT_FALSE(__brix_xdr_callmsg(TestStream(other).get(), &call)) << word;
    EXPECT_FALSE(__brix_xdr_callmsg(TestStream(100).get(), &call)) << word;
  }
}

TEST(RpcMessage, BoundsAuthBodies) {
  std::vector<uint8_t> body(32748);
  rpc_call_message call = {
      1, kRpcCall, 2, 3, 4, 5, {1, body.data(), 32744}, {1, body.data(), 32744}};
  EXPECT_NE(encoded(kCall, &call), "fails");
  ++call.credential.length;
  EXPECT_EQ(encoded(kCall, &call), "fails");
  std::swap(call.credential, call.verifier);
  EXPECT_EQ(encoded(kCall, &call), "fails");
}

struct Reply {
  const char* hex;  // behind the transaction and the direction
  bool decodes;
  int status;
  rpc_err_words detail = {};
};

#define ACCEPTED "0000000000000002000000050102030405000000"
constexpr Reply kReplies[] = {
    {ACCEPTED "00000000000000066162636465660000", true, RPC_SUCCESS},
    {ACCEPTED "00000001", true, RPC_PROGUNAVAIL},
    {ACCEPTED "0000000200000003FFFFFFFF", true, RPC_PROGVERSMISMATCH, {3, 4294967295}},
    {ACCEPTED "00000003", true, RPC_PROCUNAVAIL},
    {ACCEPTED "00000004", true, RPC_CANTDECODEARGS},
    {ACCEPTED "00000005", true, RPC_SYSTEMERROR},
    {ACCEPTED "FFFFFFFF", true, RPC_FAILED, {0, -1}},
    {"00000001000000000000000200000003", true, RPC_VERSMISMATCH, {2, 3}},
    {"000000010000000100000009", true, RPC_AUTHERROR, {9, 0}},
    {"0000000100000002", false, RPC_FAILED, {1, 2}},  // denied for no known reason
    {"00000002", false, RPC_FAILED, {2, 0}},          // neither accepted nor denied
};
#undef ACCEPTED

TEST(RpcMessage, SaysWhatAReplyMeans) {
  for (const Reply& reply : kReplies) {
    SCOPED_TRACE(reply.hex);
    const std::string hex = std::string("0000000900000001") + reply.hex;
    char* text = nullptr;
    rpc_reply_message message = {};
    message.accepted.results = &text;
    message.accepted.results_filter = xdr_filter<__brix_xdr_wrapstring>;
    if (reply.decodes) expect_carried(kReply, hex, message);
    EXPECT_EQ(kReply(TestStream(from_hex(hex)).get(), &message), reply.decodes);
    rpc_err error;
    memset(&error, 0xFF, sizeof error);
    __brix_seterr_reply(&message, &error);
    EXPECT_EQ(error.status, reply.status);
    const bool says_why = reply.status == RPC_AUTHERROR;
    EXPECT_EQ(says_why ? error.why : error.other.s1, reply.detail.s1);
    EXPECT_EQ(error.other.s2, reply.detail.s2);
    __brix_xdr_free(kReply, &message);
    EXPECT_EQ(text, nullptr);
  }
}

TEST(RpcMessage, RefusesACallForAReply) {
  TestStream in(from_hex("00000009 00000000") + from_hex(kReplies[9].hex));
  rpc_reply_message message = {};
  EXPECT_FALSE(kReply(in.get(), &message));
}

}  // namespace

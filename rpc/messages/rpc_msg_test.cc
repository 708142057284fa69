// Call and reply messages against literal bytes (RFC 5531, section 9).
#include "rpc/messages/rpc_msg.h"

#include "rpc/handle/c_perror.h"
#include "rpc/messages/rpc_cmsg.h"
#include "rpc/messages/rpc_prot.h"
#include "tests/xdr_streams.h"

namespace {

constexpr xdrproc_t kCall = xdr_filter<__brix_xdr_callmsg>;
constexpr xdrproc_t kReply = xdr_filter<__brix_xdr_replymsg>;

// The part that is the same for every call of a client, and the rest.
const std::string kHeaderHex = "112233440000000000000002000186A000000002";
const std::string kCallHex = kHeaderHex + "0000000300000001000000030A0B0C000000000000000000";

TEST(RpcMessage, CarriesCalls) {
  uint8_t body[] = {10, 11, 12};
  rpc_call_message call = {0x11223344,      kRpcCall, 2, 100000, 2, 3, {kAuthSystem, body, 3},
                           __brix_null_auth};
  EXPECT_EQ(encoded(kCall, &call), kCallHex);
  expect_carried<rpc_call_message>(kCall, kCallHex);
  EXPECT_EQ(encoded(xdr_filter<__brix_xdr_callhdr>, &call), kHeaderHex);
  EXPECT_FALSE(__brix_xdr_callhdr(&__xdr, &call));
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

TEST(RpcMessage, SaysWhatAReplyMeans) {
  constexpr char kFailed[] = "Failed (unspecified error)\n";
  const std::string accepted = "0000000000000002000000050102030405000000";
  const struct {
    std::string hex;  // behind the transaction and the direction
    bool decodes;
    const char* outcome;
  } rows[] = {{accepted + "00000000000000066162636465660000", true, "Success\n"},
              {accepted + "00000001", true, "Program unavailable\n"},
              {accepted + "0000000200000003FFFFFFFF", true,
               "RPC program or version mismatch; low version = 3, high version = 4294967295\n"},
              {accepted + "00000003", true, "RPC server is unavailable\n"},
              {accepted + "00000004", true, "Server can't decode arguments\n"},
              {accepted + "00000005", true, "Remote system error\n"},
              {accepted + "00000006", true, kFailed},
              {accepted + "FFFFFFFF", true, kFailed},
              {"00000001000000000000000200000003", true,
               "Incompatible versions of RPC; low version = 2, high version = 3\n"},
              {"000000010000000100000009", true,
               "Authentication error; why = (unknown authentication error - 9)\n"},
              {"0000000100000002", false, kFailed},
              {"00000002", false, kFailed}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.hex);
    const std::string hex = "0000000900000001" + row.hex;
    char* text = nullptr;
    rpc_reply_message message = {};
    message.accepted.results = &text;
    message.accepted.results_filter = xdr_filter<__brix_xdr_wrapstring>;
    if (row.decodes) expect_carried(kReply, hex, message);
    EXPECT_EQ(kReply(TestStream(from_hex(hex)).get(), &message), row.decodes);
    rpc_err error;
    memset(&error, 0xFF, sizeof error);
    __brix_seterr_reply(&message, &error);
    EXPECT_STREQ(clnt_sperror_rpc_err(&error, nullptr), row.outcome);
    __brix_xdr_free(kReply, &message);
    EXPECT_EQ(text, nullptr);
  }
}

}  // namespace

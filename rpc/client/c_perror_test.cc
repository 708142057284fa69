#include "rpc/client/c_perror.h"

#include <cerrno>

#include "rpc/client/rpcvarp.h"
#include "tests/lab.h"
#include "tests/threads.h"

namespace {

rpc_err failed(clnt_stat status, long s1 = 0, long s2 = 0) {
  rpc_err error = {};
  error.status = status;
  error.other = {s1, s2};
  return error;
}

// A client that failed with `last_error`.
rpc_err last_error;
constexpr clnt_ops kOps = {nullptr, nullptr, [](CLIENT*, rpc_err* error) { *error = last_error; },
                           nullptr, nullptr, nullptr};
CLIENT client = {nullptr, &kOps, nullptr};

TEST(RpcTexts, TellsTheDetail) {
  const std::string send = __brix_clnt_sperrno(RPC_CANTSEND);
  const std::string receive = __brix_clnt_sperrno(RPC_CANTRECV);
  const auto kBeyond = static_cast<clnt_stat>(28);
  const std::pair<rpc_err, std::string> kCases[] = {
      {failed(RPC_CANTSEND, ECONNREFUSED), send + "; errno = Connection refused"},
      {failed(RPC_CANTRECV, ECONNRESET), receive + "; errno = Connection reset by peer"},
      {failed(RPC_VERSMISMATCH, 2, 3),
       "Incompatible versions of RPC; low version = 2, high version = 3"},
      {failed(RPC_PROGVERSMISMATCH, 4, -1),
       "RPC program or version mismatch; low version = 4, high version = 18446744073709551615"},
      {failed(RPC_AUTHERROR, 7), "Authentication error; why = Failed (unspecified error)"},
      {failed(RPC_AUTHERROR, 8), "Authentication error; why = (unknown authentication error - 8)"},
      {failed(RPC_AUTHERROR, -1),
       "Authentication error; why = (unknown authentication error - -1)"},
      {failed(RPC_UNKNOWNPROTO, 1, 6), "Unknown protocol"},
      {failed(RPC_INTR, 1, 6), "Call interrupted; s1 = 1, s2 = 6"},
      {failed(RPC_STALERACHANDLE, 1, 6), "Stale remote asynchronous handle; s1 = 1, s2 = 6"},
      {failed(RPC_CANCELLED, 1, 6), "Cancelled"},
      {failed(kBeyond, 1, 6), "Unknown error code; s1 = 1, s2 = 6"},
  };
  for (const auto& [error, text] : kCases) {
    EXPECT_EQ(clnt_sperror_rpc_err(&error, nullptr), text + "\n");
    EXPECT_EQ(clnt_sperror_rpc_err(&error, "100% x"), "100% x: " + text + "\n");
  }
}

TEST(RpcTexts, CutsWhatIsTooLong) {
  rpc_err error = failed(RPC_TIMEDOUT);
  constexpr size_t kFits = 18432 - 2 - 11;  // line end and terminator; ": Timed out"
  for (size_t size : {kFits - 1, kFits, kFits + 1, kFits + 100000}) {
    std::string whole = std::string(size, 'p') + ": Timed out";
    EXPECT_EQ(clnt_sperror_rpc_err(&error, std::string(size, 'p').c_str()),
              whole.substr(0, 18430) + "\n");
  }
}

TEST(RpcTexts, TellsWhyNoClientWasMade) {
  rpc_createerr* error = __get_rpc_createerr();
  rpc_set_createerr(RPC_SYSTEMERROR, EPFNOSUPPORT);
  EXPECT_STREQ(__brix_clnt_spcreateerror("p"),
               "p: Remote system error - Protocol family not supported\n");
  *error = {RPC_PMAPFAILURE, failed(RPC_TIMEDOUT)};
  EXPECT_STREQ(__brix_clnt_spcreateerror("p"), "p: Port mapper failure - Timed out\n");
  in_threads(2, [](int) { EXPECT_STREQ(__brix_clnt_spcreateerror("q"), "q: Success\n"); });
  rpc_set_createerr(RPC_UNKNOWNHOST, 0);
  EXPECT_STREQ(__brix_clnt_spcreateerror("p"), "p: Unknown host\n");
}

TEST(RpcTexts, GoOnStandardErrorAndIntoRecords) {
  last_error = failed(RPC_TIMEDOUT);
  rpc_set_createerr(RPC_PROGNOTREGISTERED, 0);
  testing::internal::CaptureStderr();
  __brix_clnt_perror(&client, "100%d");
  __brix_clnt_pcreateerror("100%s");
  __brix_clnt_perrno(RPC_CANCELLED);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "100%d: Timed out\n100%s: Program not registered\nRPC: Cancelled");
  const vx_error_record* record = clnt_geterrinfo(&client, "100%d");
  EXPECT_EQ(record->number, 23005);
  EXPECT_STREQ(record->text, "100%d: Timed out\n");
}

}  // namespace

#include "rpc/client/c_perror.h"

#include <cerrno>

#include "rpc/client/rpcvarp.h"
#include "tests/printed.h"
#include "tests/threads.h"

namespace {

// A client whose last call came to `failure`.
struct Failed {
  explicit Failed(int status, long s1 = 0, long s2 = 0) {
    failure.status = static_cast<clnt_stat>(status);
    failure.other = {s1, s2};
  }
  static void tell(CLIENT* client, rpc_err* error) {
    *error = static_cast<Failed*>(client->private_data)->failure;
  }
  static constexpr clnt_ops kOps = {nullptr, nullptr, tell, nullptr, nullptr, nullptr};
  CLIENT client = {nullptr, &kOps, this};
  rpc_err failure = {};
};

TEST(RpcTexts, TellsTheDetail) {
  const std::string send = __brix_clnt_sperrno(3);
  const std::string why = "Authentication error; why = ";
  const struct {
    int status;
    long s1, s2;
    std::string text;
  } cases[] = {
      {3, ECONNREFUSED, 0, send + "; errno = Connection refused"},
      {4, ECONNRESET, 0,
       __brix_clnt_sperrno(4) + std::string("; errno = Connection reset by peer")},
      {6, 2, 3, "Incompatible versions of RPC; low version = 2, high version = 3"},
      {9, 4, -1,
       "RPC program or version mismatch; low version = 4, high version = 18446744073709551615"},
      {7, 0, 0, why + "Authentication OK"},
      {7, 2, 0, why + "Server rejected credential"},
      {7, 7, 0, why + "Failed (unspecified error)"},
      {7, 8, 0, why + "(unknown authentication error - 8)"},
      {7, -1, 0, why + "(unknown authentication error - -1)"},
      {16, 1, 6, "Failed (unspecified error)"},
      {17, 1, 6, "Unknown protocol"},
      {18, 1, 6, "Call interrupted; s1 = 1, s2 = 6"},
      {25, 1, 6, "Stale remote asynchronous handle; s1 = 1, s2 = 6"},
      {26, 1, 6, "Invalid handle"},
      {27, 1, 6, "Cancelled"},
      {28, 1, 6, "Unknown error code; s1 = 1, s2 = 6"},
      {-1, 1, 6, "Unknown error code"}};
  for (const auto& [status, s1, s2, text] : cases) {
    Failed test(status, s1, s2);
    EXPECT_EQ(clnt_sperror_rpc_err(&test.failure, nullptr), text + "\n");
    EXPECT_EQ(__brix_clnt_sperror(&test.client, "100% x"), "100% x: " + text + "\n");
  }
  Failed failed(RPC_TIMEDOUT);
  constexpr size_t kFits = 18432 - 2 - 11;  // line end and terminator; ": Timed out"
  for (size_t size : {kFits - 1, kFits, kFits + 1, kFits + 100000}) {
    const std::string prefix(size, 'p');
    EXPECT_EQ(__brix_clnt_sperror(&failed.client, prefix.c_str()),
              (prefix + ": Timed out").substr(0, 18430) + "\n");
  }
}

TEST(RpcTexts, TellsWhyNoClientWasMade) {
  rpc_set_createerr(RPC_SYSTEMERROR, EPFNOSUPPORT);
  EXPECT_STREQ(__brix_clnt_spcreateerror("p"),
               "p: Remote system error - Protocol family not supported\n");
  *__get_rpc_createerr() = {RPC_PMAPFAILURE, Failed(RPC_TIMEDOUT).failure};
  EXPECT_STREQ(__brix_clnt_spcreateerror("p"), "p: Port mapper failure - Timed out\n");
  in_threads(2, [](int) { EXPECT_STREQ(__brix_clnt_spcreateerror("q"), "q: Success\n"); });
  rpc_set_createerr(RPC_UNKNOWNHOST, 0);
  EXPECT_STREQ(__brix_clnt_spcreateerror(nullptr), "Unknown host\n");
}

TEST(RpcTexts, GoOnStandardErrorAndIntoRecords) {
  Failed failed(RPC_TIMEDOUT);
  rpc_set_createerr(RPC_PROGNOTREGISTERED, 0);
  EXPECT_EQ(printed(0,
                    [&] {
                      __brix_clnt_perror(&failed.client, "100%d");
                      __brix_clnt_pcreateerror("100%s");
                      __brix_clnt_perrno(RPC_CANCELLED);
                    }),
            "100%d: Timed out\n100%s: Program not registered\nRPC: Cancelled");
  const vx_error_record* record = clnt_geterrinfo(&failed.client, "100%d");
  EXPECT_EQ(record->number, 23005);
  EXPECT_STREQ(record->text, "100%d: Timed out\n");
}

}  // namespace

// What the calling thread keeps for the RPC runtime, and the texts of failures.
#include <gmock/gmock.h>

#include <thread>

#include "liblocal/base/c_memory.h"
#include "rpc/handle/c_perror.h"
#include "rpc/handle/rpcvarp.h"
#include "tests/fakes.h"
#include "tests/work.h"

namespace {

CLIENT timed_out() {
  auto geterr = [](CLIENT*, rpc_err* error) { *error = {RPC_TIMEDOUT, {}}; };
  static const clnt_ops kOps = {nullptr, nullptr, geterr, nullptr, nullptr, nullptr};
  return {nullptr, &kOps, nullptr};
}

TEST(RpcTexts, ShowTheDetailOfAStatus) {
  (void)__brix_clnt_sperrno(RPC_SUCCESS);  // the table of statuses is made without numbers
  const fakes::NumberedTexts numbered;
  const struct {
    int status;
    const char* text;
  } rows[] = {{-1, "[21.50] Unknown error code\n"},
              {RPC_VERSMISMATCH, "[21.20] ; low version = 1, high version = 2\n"},
              {RPC_UNKNOWNPROTO, "Unknown protocol\n"},
              {RPC_INTR, "Call interrupted; s1 = 1, s2 = 2\n"},
              {RPC_STALERACHANDLE, "handle; s1 = 1, s2 = 2\n"},
              {RPC_INVALIDHANDLE, "Invalid handle\n"},
              {RPC_CANCELLED, "Cancelled\n"},
              {28, "[21.50] Unknown error code; s1 = 1, s2 = 2\n"}};
  for (const auto& [status, text] : rows) {
    rpc_err error = {static_cast<clnt_stat>(status), {{1, 2}}};
    EXPECT_THAT(clnt_sperror_rpc_err(&error, nullptr), testing::EndsWith(text));
  }
}

TEST(RpcTexts, SayWhyAnAuthenticationWasRefused) {
  const fakes::NumberedTexts numbered;
  const std::pair<auth_state, std::string> whys[] = {
      {kAuthOk, "[21.51] Authentication OK"},
      {kAuthBadCredential, "[21.52] Invalid client credential"},
      {kAuthTooWeak, "[21.56] Client credential too weak"},
      {kAuthRejectedVerifier, "[21.55] Server rejected verifier"},
      {kAuthFailed, "[21.38] Failed (unspecified error)"},
      {static_cast<auth_state>(8), "[21.21] (unknown authentication error - 8)"}};
  for (const auto& [status, why] : whys) {
    rpc_err error = {RPC_AUTHERROR, {}};
    error.why = status;
    EXPECT_THAT(clnt_sperror_rpc_err(&error, nullptr), testing::EndsWith("; why = " + why + "\n"));
  }
}

TEST(RpcTexts, AreCutToFit) {
  CLIENT client = timed_out();
  constexpr size_t kFits = 18432 - 2 - 11;  // line end and terminator; ": Timed out"
  for (size_t size : {kFits, 2 * kFits}) {
    const std::string prefix(size, 'p');
    EXPECT_EQ(__brix_clnt_sperror(&client, prefix.c_str()),
              (prefix + ": Timed out").substr(0, 18430) + "\n");
  }
}

TEST(RpcTexts, ArePrintedAndRecorded) {
  CLIENT client = timed_out();
  errno = EXDEV;
  rpc_set_createerr(RPC_CANCELLED, 0);
  EXPECT_EQ(errno, EXDEV);
  auto print = [&] {
    __brix_clnt_perror(&client, "100%d");
    __brix_clnt_pcreateerror("100%s");
    __brix_clnt_perrno(RPC_PROGNOTREGISTERED);
  };
  EXPECT_EQ(printed(0, print), "100%d: Timed out\n100%s: Cancelled\nRPC: Program not registered");
  const vx_error_record* record = clnt_geterrinfo(&client, "100%d");
  EXPECT_EQ(record->number, 23005);
  EXPECT_STREQ(record->text, "100%d: Timed out\n");
}

// Uses every part of the thread's block.
void use_block() {
  rpc_t_varp* block = get_rpc_t_varp();
  for (int slot : {0, 65535}) {
    auto* transport = new rpc_server_transport{malloc(100), [](auto* old) { delete old; }};
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(rpc_set_server_transport(slot, transport));
  }
  for (int slot : {-1, 65536}) EXPECT_FALSE(rpc_set_server_transport(slot, nullptr));
  block->port_cache = c_new<rpc_port_entry>();
  block->mappers = c_new<rpc_started_mapper>();
  EXPECT_EQ(Global_rpc_t_varp, block);
}

TEST(RpcVarp, ReleasesWhatAThreadUsed) {
  EXPECT_EQ(fakes::pieces_left_by([] { std::thread(use_block).join(); }), 0);
  EXPECT_EQ(Global_rpc_t_varp, nullptr);
}

}  // namespace

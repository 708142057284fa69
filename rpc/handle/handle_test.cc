// What the calling thread keeps for the RPC runtime, and the texts of failures.
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <thread>

#include "rpc/handle/c_perror.h"
#include "rpc/handle/rpcvarp.h"
#include "tests/fakes.h"
#include "tests/work.h"

namespace {

// What a call came to, with two words of detail.
rpc_err failure(int status, long s1 = 0, long s2 = 0) {
  rpc_err error = {};
  error.status = static_cast<clnt_stat>(status);
  error.other = {s1, s2};
  const int in_one_number[] = {RPC_CANTSEND, RPC_CANTRECV, RPC_SYSTEMERROR, RPC_AUTHERROR};
  if (std::ranges::count(in_one_number, status) > 0) error.why = static_cast<int32_t>(s1);
  return error;
}

// A client whose last call timed out.
CLIENT timed_out() {
  auto geterr = [](CLIENT*, rpc_err* error) { *error = failure(RPC_TIMEDOUT); };
  static const clnt_ops kOps = {nullptr, nullptr, geterr, nullptr, nullptr, nullptr};
  return {nullptr, &kOps, nullptr};
}

TEST(RpcTexts, ShowTheDetailOfAStatus) {
  const char kNumber[] = "; errno = Permission denied";
  const char kWords[] = "; s1 = 13, s2 = 18446744073709551615";
  const char kVersions[] = "; low version = 13, high version = 18446744073709551615";
  const struct {
    int status;
    const char* detail;
  } rows[] = {{-1, ""},           {RPC_CANTSEND, kNumber},       {RPC_CANTRECV, kNumber},
              {RPC_TIMEDOUT, ""}, {RPC_VERSMISMATCH, kVersions}, {RPC_PROGVERSMISMATCH, kVersions},
              {RPC_INTR, kWords}, {RPC_STALERACHANDLE, kWords},  {RPC_CANCELLED, ""},
              {28, kWords}};
  for (const auto& [status, detail] : rows) {
    const rpc_err error = failure(status, EACCES, -1);
    EXPECT_EQ(clnt_sperror_rpc_err(&error, "100% x"),
              std::string("100% x: ") + __brix_clnt_sperrno(status) + detail + "\n");
  }
}

TEST(RpcTexts, AreCutToFit) {
  CLIENT client = timed_out();
  constexpr size_t kFits = 18432 - 2 - 11;  // line end and terminator; ": Timed out"
  for (size_t size : {kFits, kFits + 1}) {
    const std::string prefix(size, 'p');
    EXPECT_EQ(__brix_clnt_sperror(&client, prefix.c_str()),
              (prefix + ": Timed out").substr(0, 18430) + "\n");
  }
}

TEST(RpcTexts, ComeFromTheCatalog) {
  (void)__brix_clnt_sperrno(RPC_SUCCESS);  // the table of statuses is made without numbers
  const fakes::NumberedTexts numbered;
  const struct {
    int status, s1;
    const char* text;
  } rows[] = {{28, 0, "[21.50] Unknown error code; s1 = 0, s2 = 0\n"},
              {RPC_AUTHERROR, kAuthOk, "; why = [21.51] Authentication OK\n"},
              {RPC_AUTHERROR, 1, "; why = [21.52] Invalid client credential\n"},
              {RPC_AUTHERROR, 2, "; why = [21.53] Server rejected credential\n"},
              {RPC_AUTHERROR, 3, "; why = [21.54] Invalid client verifier\n"},
              {RPC_AUTHERROR, 4, "; why = [21.55] Server rejected verifier\n"},
              {RPC_AUTHERROR, 5, "; why = [21.56] Client credential too weak\n"},
              {RPC_AUTHERROR, 6, "; why = [21.57] Invalid server verifier\n"},
              {RPC_AUTHERROR, kAuthFailed, "; why = [21.38] Failed (unspecified error)\n"},
              {RPC_AUTHERROR, 8, "; why = [21.21] (unknown authentication error - 8)\n"},
              {RPC_VERSMISMATCH, 1, "[21.20] ; low version = 1, high version = 0\n"}};
  for (const auto& [status, s1, text] : rows) {
    const rpc_err error = failure(status, s1);
    EXPECT_THAT(clnt_sperror_rpc_err(&error, nullptr), testing::EndsWith(text));
  }
}

TEST(RpcTexts, SayWhyNoClientWasMade) {
  const struct {
    rpc_createerr error;
    const char* text;
  } rows[] = {{{RPC_SYSTEMERROR, failure(3, EPFNOSUPPORT)},
               "p: Remote system error - Protocol family not supported\n"},
              {{RPC_PMAPFAILURE, failure(5, 2)}, "p: Port mapper failure - Timed out\n"},
              {{RPC_UNKNOWNHOST, failure(5, 2)}, "p: Unknown host\n"}};
  for (const auto& [error, text] : rows) {
    *__get_rpc_createerr() = error;
    EXPECT_STREQ(__brix_clnt_spcreateerror("p"), text);
  }
}

TEST(RpcTexts, ArePrinted) {
  CLIENT client = timed_out();
  rpc_set_createerr(RPC_PROGNOTREGISTERED, 0);
  auto print = [&] {
    __brix_clnt_perror(&client, "100%d");
    __brix_clnt_pcreateerror("100%s");
    __brix_clnt_perrno(RPC_CANCELLED);
  };
  EXPECT_EQ(printed(0, print), "100%d: Timed out\n100%s: Program not registered\nRPC: Cancelled");
}

TEST(RpcTexts, GoIntoErrorRecords) {
  CLIENT client = timed_out();
  const vx_error_record* record = clnt_geterrinfo(&client, "100%d");
  EXPECT_EQ(record->number, 23005);
  EXPECT_STREQ(record->text, "100%d: Timed out\n");
}

std::atomic<int> destroyed = 0;

// Uses every part of the thread's block.
void use_block() {
  rpc_t_varp* block = get_rpc_t_varp();
  auto destroy = [](rpc_server_transport* transport) {
    ++destroyed;
    delete transport;
  };
  auto* transport = new rpc_server_transport{malloc(100), destroy};
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(rpc_set_server_transport(65535, transport));
  EXPECT_EQ(destroyed, 0);
  EXPECT_FALSE(rpc_set_server_transport(65536, transport));
  block->port_cache = new (malloc(sizeof(rpc_port_entry))) rpc_port_entry{};
  block->mappers = new (malloc(sizeof(rpc_started_mapper))) rpc_started_mapper{};
}

TEST(RpcVarp, ReleasesWhatAThreadUsed) {
  auto use_in_a_thread = [] {
    destroyed = 0;
    std::thread(use_block).join();
  };
  EXPECT_EQ(fakes::pieces_left_by(use_in_a_thread), 0);
  EXPECT_EQ(destroyed, 1);
}

TEST(RpcVarp, SettingTheCreationErrorKeepsErrno) {
  errno = EXDEV;
  rpc_set_createerr(RPC_SYSTEMERROR, ENOSPC);
  EXPECT_EQ(errno, EXDEV);
  EXPECT_EQ(__get_rpc_createerr()->cause.error_number, ENOSPC);
}

}  // namespace

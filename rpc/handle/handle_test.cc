// What the calling thread keeps for the RPC runtime, and the texts of failures.
#include <nl_types.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "liblocal/messages/catgets.h"
#include "liblocal/messages/liblvars.h"
#include "rpc/handle/c_perror.h"
#include "rpc/handle/rpcvarp.h"
#include "tests/fakes.h"
#include "tests/locales.h"
#include "tests/work.h"

namespace {

// The numbers that callers and peers know, but for those that other tests have.
static_assert(RPC_CANTENCODEARGS == 1 && RPC_CANTDECODERES == 2 && RPC_UNKNOWNHOST == 13 &&
              RPC_PMAPFAILURE == 14 && RPC_PROGNOTREGISTERED == 15 && RPC_UNKNOWNPROTO == 17 &&
              RPC_UNKNOWNADDR == 19 && RPC_TLIERROR == 20 && RPC_NOBROADCAST == 21 &&
              RPC_N2AXLATEFAILURE == 22 && RPC_UDERROR == 23 && RPC_INPROGRESS == 24 &&
              RPC_INVALIDHANDLE == 26);
static_assert(CLSET_TIMEOUT == 1 && CLGET_SERVER_ADDR == 3 && CLGET_RETRY_TIMEOUT == 5 &&
              CLGET_FD == 6 && CLSET_FD_NCLOSE == 9 && CLSET_SEND_SIZE == 23 &&
              CLGET_STREAM == 30 && CLSET_WAIT_STATE == 37);
static_assert(kAuthMethodsNone == 1 && kAuthMethodsSystem == 2 && kAuthMethodsDefault == 79);
static_assert(kAuthBadCredential == 1 && kAuthRejectedCredential == 2 && kAuthBadVerifier == 3 &&
              kAuthRejectedVerifier == 4 && kAuthTooWeak == 5 && kAuthInvalidServerVerifier == 6);
static_assert(kAcceptProgramUnavailable == 1 && kAcceptProcedureUnavailable == 3 &&
              kAcceptGarbageArguments == 4 && kAcceptSystemError == 5);

// A client whose last call came to `failure`.
struct Failed {
  explicit Failed(int status, long s1 = 0, long s2 = 0) {
    failure.status = static_cast<clnt_stat>(status);
    failure.other = {s1, s2};
  }
  static void tell(CLIENT* client, rpc_err* error) {
    *error = static_cast<Failed*>(client->private_data)->failure;
  }
  std::string text() const { return clnt_sperror_rpc_err(&failure, nullptr); }
  static constexpr clnt_ops kOps = {nullptr, nullptr, tell, nullptr, nullptr, nullptr};
  CLIENT client = {nullptr, &kOps, this};
  rpc_err failure = {};
};

TEST(RpcTexts, TellTheDetailOfEveryStatus) {
  for (int status = -1; status <= RPC_CANCELLED + 1; ++status) {
    std::string text = __brix_clnt_sperrno(status);
    if (status == RPC_CANTSEND || status == RPC_CANTRECV) text += "; errno = Permission denied";
    if (status == RPC_AUTHERROR) text += "; why = (unknown authentication error - 13)";
    if (status == RPC_VERSMISMATCH || status == RPC_PROGVERSMISMATCH) {
      text += "; low version = 13, high version = 18446744073709551615";
    }
    if ((status >= 18 && status <= 25) || status > 27) {
      text += "; s1 = 13, s2 = 18446744073709551615";
    }
    Failed test(status, EACCES, -1);
    EXPECT_EQ(test.text(), text + "\n");
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

// One text after the other, between ';'.
std::string all_texts() {
  std::string texts;
  for (int code : {-1, 0, 27, 28}) (texts += __brix_clnt_sperrno(code)) += ";";
  for (int why = -1; why <= 8; ++why) {
    texts += Failed(RPC_AUTHERROR, why).text().substr(28);
    texts.back() = ';';
  }
  return texts + Failed(RPC_VERSMISMATCH, 1, 2).text().substr(28);
}

TEST(RpcTexts, ComeFromTheCatalog) {
  const std::string place = testing::TempDir() + "rpc.cat";
  std::string messages = "$set 21\n20 20 %lu %lu\n21 21 %d\n38 38\n";
  for (int i = 50; i < 58; ++i) messages += std::to_string(i) + " " + std::to_string(i) + "\n";
  compile_catalog(place, messages);
  EXPECT_EQ(all_texts(),
            "Unknown error code;Success;Cancelled;Unknown error code;"
            "(unknown authentication error - -1);Authentication OK;Invalid client credential;"
            "Server rejected credential;Invalid client verifier;Server rejected verifier;"
            "Client credential too weak;Invalid server verifier;Failed (unspecified error);"
            "(unknown authentication error - 8);; low version = 1, high version = 2\n");
  Catd = reinterpret_cast<int64_t>(catopen(place.c_str(), 0));
  _vx_set_initialised();
  EXPECT_EQ(all_texts(), "50;Success;Cancelled;50;21 -1;51;52;53;54;55;56;57;38;21 8;20 1 2\n");
  vxcatclose(std::exchange(Catd, -1));
}

TEST(RpcTexts, TellsWhyNoClientWasMade) {
  const std::pair<rpc_createerr, std::string> cases[] = {
      {{RPC_SYSTEMERROR, Failed(3, EPFNOSUPPORT).failure},
       "Remote system error - Protocol family not supported\n"},
      {{RPC_PMAPFAILURE, Failed(5, 2).failure}, "Port mapper failure - Timed out\n"},
      {{RPC_UNKNOWNHOST, Failed(5, 2).failure}, "Unknown host\n"}};
  for (const auto& [error, text] : cases) {
    *__get_rpc_createerr() = error;
    EXPECT_EQ(__brix_clnt_spcreateerror(nullptr), text);
    EXPECT_EQ(__brix_clnt_spcreateerror("p"), "p: " + text);
  }
  in_threads(2, [](int) { EXPECT_STREQ(__brix_clnt_spcreateerror("q"), "q: Success\n"); });
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

struct Transport {
  rpc_server_transport header;
  int number;
};

std::vector<int> destroyed;

rpc_server_transport* new_transport(int number) {
  auto* transport = new Transport{{malloc(100), nullptr}, number};
  transport->header.destroy = [](rpc_server_transport* header) {
    EXPECT_EQ(header->extra, nullptr);
    auto* whole = reinterpret_cast<Transport*>(header);
    destroyed.push_back(whole->number);
    delete whole;
  };
  return &transport->header;
}

void use_all() {
  destroyed.clear();
  rpc_t_varp* block = get_rpc_t_varp();
  EXPECT_EQ(Global_rpc_t_varp, block) << "the newest";
  for (int slot : {65535, 0, 255, 256})
    EXPECT_TRUE(rpc_set_server_transport(slot, new_transport(slot)));
  for (int again = 0; again < 2; ++again) {
    EXPECT_TRUE(rpc_set_server_transport(7, block->transports[7])) << "stays";
    EXPECT_TRUE(rpc_set_server_transport(7, new_transport(again)));
  }
  EXPECT_TRUE(rpc_set_server_transport(7, nullptr));
  for (int slot : {-1, 65536}) EXPECT_FALSE(rpc_set_server_transport(slot, nullptr));
  for (int i = 0; i < 3; ++i) {
    block->port_cache =
        new (malloc(sizeof(rpc_port_entry))) rpc_port_entry{1, 2, 3, 4, block->port_cache};
    block->mappers = new (malloc(sizeof(rpc_started_mapper))) rpc_started_mapper{5, block->mappers};
  }
}

TEST(RpcVarp, ReleasesWhatAThreadUsed) {
  EXPECT_EQ(fakes::pieces_left_by([] { std::thread(use_all).join(); }), 0);
  EXPECT_EQ(Global_rpc_t_varp, nullptr);
  EXPECT_EQ(destroyed, (std::vector{0, 1, 0, 255, 256, 65535}));
}

TEST(RpcVarp, SettingTheCreationErrorKeepsErrno) {
  std::thread([] {
    errno = EXDEV;
    rpc_set_createerr(RPC_SYSTEMERROR, ENOSPC);  // makes the thread's block
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(__get_rpc_createerr()->cause.error_number, ENOSPC);
    EXPECT_EQ(__get_rpc_createerr()->cause.status, RPC_SUCCESS);
  }).join();
}

}  // namespace

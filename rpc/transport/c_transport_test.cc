// Clients over UDP and over TCP, and over UDP alone.
#include "rpc/transport/c_transport.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <vector>

#include "rpc/auth/a_none.h"
#include "rpc/auth/auth.h"
#include "tests/fakes.h"
#include "tests/rpc_client.h"
#include "tests/work.h"

namespace {

using namespace fakes;
using namespace machine;

constexpr char kTooWeak[] = "ID 00000001 00000001 00000001 00000005";
constexpr char kRejected[] = "ID 00000001 00000001 00000001 00000002";
constexpr char kVersion2[] = "ID 00000001 00000000 00000000 00000000 00000002 00000002 00000003";
// Success, with a verifier that has a body, and 42 for results.
constexpr char kAnswer[] = "ID 00000001 00000000 00000002 00000004 61626364 00000000 0000002A";

// The flavour none by another number, which refreshes a few times.
struct ScriptedAuth {
  auth_ops ops = *__brix_authnone_create()->ops;
  AUTH handle = {{}, {}, {}, &ops, this};
  int refreshes_left;
  bool valid = true;
  bool wants_refresh = false;

  static ScriptedAuth* of(AUTH* auth) { return static_cast<ScriptedAuth*>(auth->private_data); }

  explicit ScriptedAuth(int refreshes, int32_t flavour = 99) : refreshes_left(refreshes) {
    handle.credential.flavour = flavour;
    ops.validate = [](AUTH* auth, const opaque_auth*) { return of(auth)->valid; };
    ops.refresh = [](AUTH* auth) { return of(auth)->refreshes_left-- > 0; };
    ops.needs_refresh = [](AUTH* auth, bool, CLIENT*) { return of(auth)->wants_refresh; };
  }
};

class TransportTest : public ClientTest, public testing::WithParamInterface<Transport> {
 protected:
  bool is_tcp() const { return GetParam() == kTcp; }

  // Makes a server that answers with `hex`, and a client of it with `auth`.
  void serve(const char* hex = kAnswer, ScriptedAuth* auth = nullptr) {
    ClientTest::serve(GetParam(), always(hex));
    if (auth != nullptr) client_->auth = &auth->handle;
  }

  size_t sent() const { return server_->requests().size(); }
};

TEST_P(TransportTest, CallsOnTheWire) {
  serve();
  const long before = pieces_held();
  for (int i = 0; i < 301; ++i) expect(call(), RPC_SUCCESS);
  EXPECT_EQ(pieces_held(), before);
  EXPECT_EQ(result_, 42);
  std::vector<uint32_t> ids;
  for (const std::string& request : server_->requests()) {
    EXPECT_EQ(to_hex(request.substr(4)),
              "000000000000000200000005000000060000000700000000000000000000000000000000"
              "00000008");
    ids.emplace_back();
    request.copy(reinterpret_cast<char*>(&ids.back()), 4);
    ids.back() = le32toh(ids.back());
  }
  for (size_t i = 1; i < ids.size(); ++i) {
    const uint32_t next = (ids[i - 1] & 0xFFFF0000) | ((ids[i - 1] + 1) & 0xFFFF);
    EXPECT_EQ(ids[i], is_tcp() ? ids[i - 1] - 1 : next) << "over UDP, the lower 16 bits count";
  }
}

TEST_P(TransportTest, NullFiltersStandForNothing) {
  serve();
  expect(client_->ops->call(client_, 7, nullptr, nullptr, nullptr, nullptr, kLong), RPC_SUCCESS);
  EXPECT_EQ(server_->requests()[0].size(), 40U);
}

TEST_P(TransportTest, RefreshAndFallback) {
  const struct {
    const char* name;
    int32_t flavour;
    const char* answer;
    int refreshes;
    size_t sent;
    int32_t after;  // the flavour; -1: no authentication
    bool confirmed = false;
    uint32_t allowed = kAuthMethodsDefault;  // only TCP has it
  } rows[] = {{"two at most", 99, kTooWeak, 9, 3, 99},
              {"system to none", kAuthSystem, kRejected, 9, 2, kAuthNone},
              {"confirmed", kAuthSystem, kRejected, 1, 2, kAuthSystem, true},
              {"version 2", kAuthSystem, kVersion2, 0, 2, kAuthNone},
              {"from 6 down", 6, kRejected, 0, 3, kAuthNone},
              {"only system", kAuthSystem, kRejected, 9, 1, -1, false, kAuthMethodsSystem}};
  for (auto row : rows) {
    if (!is_tcp() && row.allowed != kAuthMethodsDefault) continue;
    SCOPED_TRACE(row.name);
    ScriptedAuth auth(row.refreshes, row.flavour);
    serve(row.answer, &auth);
    EXPECT_EQ(control(CLSET_AUTH_METHODS, &row.allowed), is_tcp());
    if (row.confirmed) control(CLSET_AUTH_CONFIRMED, client_);
    EXPECT_NE(call(), RPC_SUCCESS);
    EXPECT_EQ(sent(), row.sent);
    EXPECT_EQ(client_->auth != nullptr ? client_->auth->credential.flavour : -1, row.after);
    EXPECT_EQ(get<int32_t>(CLGET_AUTH_CONFIRMED), row.confirmed ? 1 : 0);
  }
}

TEST_P(TransportTest, AnInvalidVerifierEndsTheCall) {
  ScriptedAuth auth(1);
  auth.valid = false;
  serve(kAnswer, &auth);
  expect(call(), RPC_AUTHERROR, kAuthInvalidServerVerifier);
  EXPECT_EQ(auth.refreshes_left, 1);
  EXPECT_EQ(get<int32_t>(CLGET_AUTH_CONFIRMED), 1);
}

TEST_P(TransportTest, ARefreshThatIsDueComesBeforeTheCall) {
  ScriptedAuth auth(1);
  auth.wants_refresh = true;
  serve(kAnswer, &auth);
  EXPECT_EQ(call(), RPC_SUCCESS);
  EXPECT_EQ(call(), RPC_SUCCESS) << "the status of the call before";
  EXPECT_EQ(sent(), 1U) << "without a refresh nothing is sent";
  client_->auth = nullptr;
  expect(call(), RPC_AUTHERROR, kAuthFailed);
}

TEST_P(TransportTest, FiltersThatFail) {
  serve();
  auto only_free = [](XDR* xdrs, void*) { return xdrs->operation == xdr_op::kFree; };
  expect(call_with(only_free, nullptr), RPC_CANTENCODEARGS);
  expect(client_->ops->call(client_, 7, nullptr, nullptr, only_free, nullptr, kLong),
         RPC_CANTDECODERES);
  EXPECT_TRUE(client_->ops->freeres(client_, only_free, nullptr));
  expect(call(), RPC_SUCCESS);  // a reply to what was encoded is dropped
  EXPECT_EQ(sent(), is_tcp() ? 3U : 2U) << "over TCP what was encoded ended its record";
}

TEST_P(TransportTest, PassingFailuresNeitherEndNorRepeatACall) {
  serve();
  for (int passing : {EINTR, EAGAIN, ENOMEM, EINPROGRESS}) {
    refuse(reads, passing, 3);
    refuse(writes, passing, is_tcp() ? 3 : 0);
    refuse(waits, EINTR, 20);
    EXPECT_EQ(call(), RPC_SUCCESS) << passing;
  }
  EXPECT_EQ(sent(), 4U);
}

TEST_P(TransportTest, FailuresEndACall) {
  serve();
  refuse(reads, EIO);
  expect(call(), RPC_CANTRECV, EIO);
  refuse(reads, EAGAIN);
  refuse(waits, EBADF);
  expect(call(), RPC_CANTRECV, EBADF);
  close(socket_);
  for (int i = 0; i < 2; ++i) expect(call(), RPC_CANTSEND, EBADF);
  control(CLSET_FD_NCLOSE, client_);  // the number may be another's by now
}

TEST_P(TransportTest, DestroyClosesASocketOfItsOwn) {
  for (bool closes : {true, false}) {
    serve();
    EXPECT_EQ(get<int>(CLGET_FD), socket_);
    EXPECT_EQ(ntohs(get<sockaddr_in>(CLGET_SERVER_ADDR).sin_port), server_->port());
    control(closes ? CLSET_FD_CLOSE : CLSET_FD_NCLOSE, &result_);
    destroy();
    EXPECT_EQ(fcntl(socket_, F_GETFD) == -1, closes);
    if (!closes) close(socket_);
  }
}

TEST_P(TransportTest, CreationWithoutMemoryLeavesNoSocket) {
  auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const auto before = descriptors();
  serve();
  refuse_each_allocation([this](const FailingMalloc& memory) {
    create(GetParam(), server_->port());
    if (memory.failed()) expect_not_created(RPC_SYSTEMERROR, ENOMEM);
  });
  TearDown();
  EXPECT_EQ(descriptors(), before);
}

TEST_P(TransportTest, NoClientIsMadeWithoutADescriptor) {
  create(GetParam(), kNobody);  // the sanitizer's first look at the object takes descriptors
  const DescriptorLimit none(0);
  create(GetParam(), kNobody);
  expect_not_created(RPC_SYSTEMERROR, EMFILE);
}

TEST_P(TransportTest, ASocketThatCannotBeWaitedForIsRefused) {
  create(GetParam(), kNobody, 65536);
  expect_not_created(RPC_SYSTEMERROR, EMFILE);
}

INSTANTIATE_TEST_SUITE_P(Both, TransportTest, testing::Values(kUdp, kTcp));

using UdpTest = ClientTest;

TEST_F(UdpTest, DatagramsThatAreNotTheReplyAreDropped) {
  serve(kUdp, [](RpcServer& peer) {
    peer.answer(kAnswer);
    const std::string request = *peer.read_request(), id = request.substr(0, 4);
    for (const auto& stray : {std::string(), id.substr(0, 3), std::string(9000, '\xFF'),
                              reply_to("dddd", "ID OK 00000000 00000007")}) {
      peer.send(stray);
    }
    peer.send(reply_to(request, kAnswer));
    peer.send(reply_to(*peer.read_request(), "ID"));
  });
  EXPECT_EQ(call(), RPC_SUCCESS);
  EXPECT_EQ(call(), RPC_SUCCESS) << "what comes first is dropped";
  EXPECT_EQ(result_, 42);
  errno = EIO;
  expect(call(), RPC_CANTDECODERES);
  EXPECT_EQ(server_->requests().size(), 3U);
}

TEST_F(UdpTest, ACallWaitsForEveryIntervalBelowTheLimit) {
  serve(kUdp, [](RpcServer&) {});
  const struct {
    timeval interval, limit;
    int waits;
  } rows[] = {{{5, 0}, {25, 0}, 5}, {{1, 600000}, {3, 200001}, 3}, {{7, 0}, {0, 0}, 0}};
  for (auto row : rows) {
    EXPECT_TRUE(control(CLSET_RETRY_TIMEOUT, &row.interval));
    EXPECT_TRUE(control(CLSET_TIMEOUT, &row.limit));
    refuse(waits, 0, 100);
    expect(call(), RPC_TIMEDOUT);
    EXPECT_EQ(100 - waits.left.exchange(0), row.waits);
  }
}

}  // namespace

#include "rpc/transport/c_transport.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include "rpc/auth/a_none.h"
#include "rpc/auth/auth_choice.h"
#include "rpc/transport/brsvport.h"
#include "rpc/transport/common.h"
#include "tests/fakes.h"
#include "tests/rpc_client.h"
#include "tests/work.h"

namespace {

using namespace fakes;
using namespace machine;

const std::string kTooWeak = "00000001 00000001 00000001 00000005";
const std::string kRejected = "00000001 00000001 00000001 00000002";
const std::string kVersion2 = "00000001 00000000 00000000 00000000 00000002 00000002 00000003";
// Success, with a verifier that has a body, and 42 for results.
const std::string kAnswer = "00000001 00000000 00000002 00000004 61626364 00000000 0000002A";

// The flavour none by another number, which refreshes a few times.
struct ScriptedAuth {
  auth_ops ops = *__brix_authnone_create()->ops;
  AUTH handle = {{}, {}, {}, &ops, this};
  int refreshes_left;

  explicit ScriptedAuth(int refreshes, int32_t flavour = 99) : refreshes_left(refreshes) {
    handle.credential.flavour = flavour;
    ops.refresh = [](AUTH* auth) {
      return static_cast<ScriptedAuth*>(auth->private_data)->refreshes_left-- > 0;
    };
  }
};

class TransportTest : public ClientTest, public testing::WithParamInterface<Transport> {
 protected:
  bool is_tcp() const { return GetParam() == kTcp; }

  // Makes a server that answers with `body`, and a client of it with `auth`.
  void serve(const std::string& body = kAnswer, ScriptedAuth* auth = nullptr) {
    ClientTest::serve(GetParam(), always(body));
    if (auth != nullptr) client_->auth = &auth->handle;
  }

  std::string create(uint16_t port = kNobody, int socket = -1) {
    return ClientTest::create(GetParam(), port, socket);
  }

  size_t sent() const { return server_->requests().size(); }
};

TEST_P(TransportTest, CallsOnTheWire) {
  serve();
  const long before = pieces_held();
  for (int i = 0; i < 301; ++i) EXPECT_EQ(call(), kSuccess);
  EXPECT_EQ(pieces_held(), before);
  EXPECT_EQ(result_, 42);
  std::optional<uint32_t> expected;
  for (const std::string& request : server_->requests()) {
    EXPECT_EQ(to_hex(request.substr(4)),
              "000000000000000200000005000000060000000700000000000000000000000000000000"
              "00000008");
    uint32_t id = 0;
    request.copy(reinterpret_cast<char*>(&id), sizeof id);
    id = le32toh(id);
    EXPECT_EQ(id, expected.value_or(id));
    const uint32_t counted_up = (id & 0xFFFF0000) | ((id + 1) & 0xFFFF);
    expected = is_tcp() ? id - 1 : counted_up;
  }
}

TEST_P(TransportTest, KnowsItsControlRequests) {
  using testing::ElementsAre;
  serve();
  uint64_t information[8] = {};
  std::vector<uint32_t> known, without_information;
  for (uint32_t request = 0; request < 40; ++request) {
    if (control(request, information)) known.push_back(request);
    if (control(request, nullptr)) without_information.push_back(request);
  }
  if (is_tcp()) {
    EXPECT_THAT(known, ElementsAre(1, 2, 3, 6, 8, 9, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31,
                                   32, 33, 34, 35, 36, 37));
    EXPECT_THAT(without_information, ElementsAre(1, 8, 9, 21, 23, 24, 26, 27, 28, 31, 32));
  } else {
    EXPECT_THAT(known, ElementsAre(1, 2, 3, 4, 5, 6, 8, 9, 27, 29));
    EXPECT_THAT(without_information, ElementsAre());
  }
  control(CLSET_FD_CLOSE, information);
}

TEST_P(TransportTest, RefreshAndFallback) {
  const struct {
    int32_t flavour;
    std::string answer;
    int refreshes;
    size_t sent;
    int32_t after;  // the flavour; -1: no authentication
    bool confirmed = false;
    uint32_t allowed = kAuthMethodsDefault;  // only TCP has it
  } rows[] = {{99, kTooWeak, 9, 3, 99},      // two refreshes at most
              {30013, kRejected, 9, 3, kAuthNone},
              {kAuthSystem, kRejected, 1, 2, kAuthSystem, true},
              {30001, kVersion2, 0, 3, kAuthNone},  // by way of system
              {6, kRejected, 0, 2, kAuthNone, false, kAuthMethodsNone},
              {99, kAccepted, 9, 1, 99},  // results that cannot be decoded
              {kAuthSystem, kRejected, 9, 1, -1, false, kAuthMethodsSystem}};
  for (auto row : rows) {
    if (!is_tcp() && row.allowed != kAuthMethodsDefault) continue;
    SCOPED_TRACE(row.sent);
    ScriptedAuth auth(row.refreshes, row.flavour);
    serve(row.answer, &auth);
    EXPECT_EQ(control(CLSET_AUTH_METHODS, &row.allowed), is_tcp());
    if (row.confirmed) control(CLSET_AUTH_CONFIRMED, client_);
    EXPECT_NE(call(), kSuccess);
    EXPECT_EQ(sent(), row.sent);
    EXPECT_EQ(client_->auth != nullptr ? client_->auth->credential.flavour : -1, row.after);
  }
}

TEST_P(TransportTest, AnInvalidVerifierEndsTheCall) {
  ScriptedAuth auth(1);
  auth.ops.validate = [](AUTH*, const opaque_auth*) { return false; };
  serve(kAnswer, &auth);
  EXPECT_EQ(get<int32_t>(CLGET_AUTH_CONFIRMED), 0);
  EXPECT_EQ(call(), "Authentication error; why = Invalid server verifier\n");
  EXPECT_EQ(auth.refreshes_left, 1);
  EXPECT_EQ(get<int32_t>(CLGET_AUTH_CONFIRMED), 1);
}

TEST_P(TransportTest, RefreshesBeforeACall) {
  ScriptedAuth auth(1);
  auth.ops.needs_refresh = [](AUTH*, bool, CLIENT*) { return true; };
  serve(kAnswer, &auth);
  EXPECT_EQ(call(), kSuccess);
  EXPECT_EQ(call(), kSuccess);  // the status of the call before
  EXPECT_EQ(sent(), 1U);        // without a refresh nothing is sent
  client_->auth = nullptr;
  EXPECT_FALSE(authfallback(client_));
  EXPECT_EQ(call(), "Authentication error; why = Failed (unspecified error)\n");
}

TEST_P(TransportTest, FiltersThatFail) {
  serve();
  auto only_free = [](XDR* xdrs, void*) { return xdrs->operation == xdr_op::kFree; };
  EXPECT_EQ(call(only_free, nullptr, nullptr, nullptr), "RPC cannot encode arguments\n");
  EXPECT_EQ(call(nullptr, nullptr, only_free, nullptr), "Can't decode result\n");
  for (xdrproc_t filter : {+only_free, xdrproc_t{}}) {
    EXPECT_TRUE(client_->ops->freeres(client_, filter, nullptr));
  }
  EXPECT_EQ(call(), kSuccess);            // a reply to what was encoded is dropped
  EXPECT_EQ(sent(), is_tcp() ? 3U : 2U);  // over TCP what was encoded ended its record
}

TEST_P(TransportTest, PassingFailuresChangeNothing) {
  serve();
  for (int passing : {EINTR, EAGAIN, ENOMEM, EINPROGRESS}) {
    refuse(reads, passing, 3);
    refuse(writes, passing, is_tcp() ? 3 : 0);
    refuse(waits, EINTR, 20);
    EXPECT_EQ(call(), kSuccess) << passing;
  }
  EXPECT_EQ(sent(), 4U);
}

TEST_P(TransportTest, FailuresEndACall) {
  serve();
  refuse(reads, EIO);
  EXPECT_EQ(call(), kCannotReceive + "Input/output error\n");
  refuse(reads, EAGAIN);
  refuse(waits, ENOSPC);
  EXPECT_EQ(call(), kCannotReceive + "No space left on device\n");
  close(socket_);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(call(), kCannotSend + "Bad file descriptor\n");
  control(CLSET_FD_NCLOSE, client_);  // the number may be another's by now
}

TEST_P(TransportTest, DestroyClosesASocketOfItsOwn) {
  for (uint32_t request : {CLSET_FD_CLOSE, CLSET_FD_NCLOSE}) {
    serve();
    EXPECT_EQ(get<int>(CLGET_FD), socket_);
    EXPECT_EQ(ntohs(get<sockaddr_in>(CLGET_SERVER_ADDR).sin_port), server_->port());
    control(request, client_);
    destroy();
    EXPECT_EQ(close(socket_), request == CLSET_FD_CLOSE ? -1 : 0);
  }
}

TEST_P(TransportTest, NeedsMemory) {
  const int next = dup(0);
  close(next);
  create();  // refused over TCP
  serve();
  const long before = pieces_held();
  refuse_each_allocation([this](const FailingMalloc& memory) {
    const std::string reason = create(server_->port());
    EXPECT_EQ(reason, memory.failed() ? kSystemError + "Cannot allocate memory\n" : "");
  });
  EXPECT_EQ(pieces_held(), before) << "of one client";
  TearDown();
  EXPECT_EQ(dup(0), next);
  close(next);
}

TEST_P(TransportTest, FailsWithoutADescriptor) {
  EXPECT_EQ(__brix_rpc_dtablesize(), std::min(getdtablesize(), 65536));
  EXPECT_EQ(create(kNobody, 65536), kSystemError + "Too many open files\n");
  const DescriptorLimit none(0);
  EXPECT_NE(__brix_rpc_dtablesize(), 0);  // the first answer is kept
  EXPECT_EQ(create(), kSystemError + "Too many open files\n");
}

TEST_P(TransportTest, FailsWithoutAPort) {
  auto create_in_vain = [this] {
    serve();
    (void)rpcport_add_range(server_->port(), server_->port(), kPortConnection);
    fputs(create().c_str(), stderr);
    _exit(HasFailure() ? 1 : 0);
  };
  EXPECT_EXIT(create_in_vain(), testing::ExitedWithCode(0),
              "Cannot bind socket to connection port in configured port range on system .*.\n"
              "Remote system error - Cannot assign requested address");
}

INSTANTIATE_TEST_SUITE_P(Both, TransportTest, testing::Values(kUdp, kTcp));

using UdpTest = ClientTest;

TEST_F(UdpTest, OtherDatagramsAreDropped) {
  serve(kUdp, [](RpcServer& peer) {
    peer.answer(kAnswer);
    const std::string request = peer.read_request(), id = request.substr(0, 4);
    for (const auto& stray : {std::string(), id.substr(0, 3), std::string(9000, '\xFF'),
                              reply("dddd", kAccepted + "00000007")}) {
      peer.send(stray);
    }
    peer.send(reply(request, kAnswer));
    peer.answer("");
  });
  EXPECT_EQ(call(), kSuccess);
  errno = EIO;                  // an empty datagram leaves it as it was
  EXPECT_EQ(call(), kSuccess);  // what comes first is dropped
  EXPECT_EQ(result_, 42);
  EXPECT_EQ(call(), "Can't decode result\n");
  EXPECT_EQ(server_->requests().size(), 3U);
}

TEST_F(UdpTest, IntervalsEndWithTheLimit) {
  serve(kUdp, [](RpcServer&) {});
  EXPECT_TRUE(equal(get<timeval>(CLGET_TIMEOUT), {-1, -1}));  // each call says its own
  const struct {
    timeval interval, limit;
    int waits;
  } rows[] = {{{5, 0}, {25, 0}, 5}, {{0, 2000000}, {4, 1}, 3}, {{7, 0}, {0, 0}, 0}};
  for (auto row : rows) {
    control(CLSET_RETRY_TIMEOUT, &row.interval);
    control(CLSET_TIMEOUT, &row.limit);
    refuse(waits, 0, 100);
    EXPECT_EQ(call(), kTimedOut);
    EXPECT_EQ(100 - waits.left.exchange(0), row.waits);
  }
}

}  // namespace

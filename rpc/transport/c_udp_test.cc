#include "rpc/transport/c_udp.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "rpc/auth/a_none.h"
#include "rpc/auth/auth.h"
#include "rpc/client/rpcvarp.h"
#include "rpc/transport/common.h"
#include "rpc/xdr/buffer_size.h"
#include "tests/failing_calls.h"
#include "tests/failing_malloc.h"
#include "tests/rpc_client.h"
#include "tests/rpc_server.h"

namespace {

using lab::kLong;
using lab::RpcServer;
using Replies = std::vector<std::string>;

timeval milliseconds(long count) { return {count / 1000, count % 1000 * 1000}; }

// Success with a verifier that has a body, and 3 or "abc" for results.
Replies answer_abc(const std::string& request) {
  return {lab::reply_to(request,
                        "00000001 00000000 00000002 00000004 61626364 00000000 00000003 61626300")};
}

class UdpTest : public lab::ClientTest {
 protected:
  // A client of program 5, version 6 at the server, of the smallest size.
  CLIENT* connect(uint16_t port, timeval retry = kLong, int socket = -1) {
    destroy();
    sockaddr_in address = lab::loopback(port);
    socket_ = socket;
    return client_ = __brix_clntudp_bufcreate(&address, 5, 6, retry, &socket_, 100, 100);
  }

  int socket_ = -1;
};

TEST_F(UdpTest, CallsAreSentInFullAndAnswered) {
  RpcServer server(0, "127.0.0.1", answer_abc);
  ASSERT_NE(connect(server.port()), nullptr);
  for (int i = 0; i < 300; ++i) ASSERT_EQ(call(), RPC_SUCCESS);
  expect(call(), RPC_SUCCESS);
  EXPECT_EQ(result_, 3);
  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 301U);
  std::string id = requests[0].substr(0, 4);
  for (const std::string& request : requests) {
    EXPECT_EQ(to_hex(request), to_hex(id) +
                                   "000000000000000200000005000000060000000700000000"
                                   "00000000000000000000000000000008");
    // The id counts up as a number of 16 bits whose low byte comes first.
    if (++id[0] == 0) ++id[1];
  }
  auto only_free = [](XDR* xdrs, void*) { return xdrs->operation == xdr_op::kFree; };
  EXPECT_TRUE(client_->ops->freeres(client_, only_free, nullptr));
}

TEST_F(UdpTest, DatagramsThatAreNotTheReplyAreDropped) {
  RpcServer server(0, "127.0.0.1", [](const std::string& request) {
    std::string other = request;
    other[3] ^= 1;
    return Replies{"", request.substr(0, 3), lab::success_to(other, "00000007"),
                   std::string(9000, '\xFF'), request};
  });
  connect(server.port());
  expect(call(), RPC_CANTDECODERES);  // as what comes last is no reply
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(UdpTest, Retransmission) {
  const struct {
    timeval retry;
    timeval limit;
    size_t sent;
  } cases[] = {
      {milliseconds(20), milliseconds(100), 5},
      {milliseconds(20), milliseconds(101), 6},
      {milliseconds(50), milliseconds(10), 1},
      {milliseconds(0), milliseconds(50), 1},
      {kLong, milliseconds(0), 1},
      {milliseconds(500), {1, 0}, 2},
  };
  RpcServer server(0, "127.0.0.1", lab::silence);
  connect(server.port());
  for (const auto& test : cases) {
    SCOPED_TRACE(test.sent);
    timeval retry = test.retry;
    ASSERT_TRUE(control(CLSET_RETRY_TIMEOUT, &retry));
    size_t before = server.requests().size();
    expect(call(test.limit), RPC_TIMEDOUT);
    for (int i = 0; i < 500 && server.requests().size() < before + test.sent; ++i) usleep(1000);
    auto requests = server.requests();
    ASSERT_EQ(requests.size(), before + test.sent);
    for (size_t i = before; i < requests.size(); ++i) EXPECT_EQ(requests[i], requests[before]);
  }
}

TEST_F(UdpTest, SignalsNeitherEndNorRepeatACall) {
  RpcServer server(0, "127.0.0.1", answer_abc);
  connect(server.port());
  failing_calls::refuse(failing_calls::waits, EINTR, 20);
  EXPECT_EQ(call(), RPC_SUCCESS);
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(UdpTest, ControlRequests) {
  RpcServer server(0, "127.0.0.1", lab::silence);
  connect(server.port());
  EXPECT_EQ(get<timeval>(CLGET_TIMEOUT).tv_sec, -1);
  timeval time = {0, 0};
  ASSERT_TRUE(control(CLSET_TIMEOUT, &time));
  EXPECT_EQ(call(kLong), RPC_TIMEDOUT);  // the client's limit wins over the call's
  uint64_t anything[8] = {};
  for (uint32_t request = 0; request < 80; ++request) {
    const bool known = (request >= 1 && request <= 9 && request != 7) ||
                       request == CLSET_AUTH_CONFIRMED || request == CLGET_AUTH_CONFIRMED;
    EXPECT_EQ(control(request, anything), known) << request;
    EXPECT_FALSE(control(request, nullptr)) << request;
  }
}

TEST_F(UdpTest, DestroyClosesTheSocketThatIsItsOwn) {
  auto stays_open = [this](int given, uint32_t request) {
    EXPECT_NE(connect(9, kLong, given), nullptr);
    const int descriptor = socket_;
    control(request, &socket_);
    destroy();
    bool open = fcntl(descriptor, F_GETFD) != -1;
    if (open) close(descriptor);
    return open;
  };
  EXPECT_FALSE(stays_open(-1, CLGET_FD));
  EXPECT_TRUE(stays_open(-1, CLSET_FD_NCLOSE));
  EXPECT_TRUE(stays_open(::socket(AF_INET, SOCK_DGRAM, 0), CLGET_FD));
  EXPECT_FALSE(stays_open(::socket(AF_INET, SOCK_DGRAM, 0), CLSET_FD_CLOSE));
  connect(9);
  EXPECT_NE(fcntl(socket_, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(fcntl(socket_, F_GETFD), FD_CLOEXEC);
}

TEST_F(UdpTest, FailingCalls) {
  RpcServer server(0, "127.0.0.1", lab::silence);
  connect(server.port());
  // Of the 100 bytes 40 are the call's own.
  static uint32_t bytes;
  xdrproc_t opaque = [](XDR* xdrs, void* object) { return __brix_xdr_opaque(xdrs, object, bytes); };
  char argument[64] = {};
  for (uint32_t size : {60U, 64U}) {
    bytes = size;
    EXPECT_EQ(client_->ops->call(client_, 1, opaque, argument, __brix_xdr_void, nullptr, {0, 0}),
              size == 60 ? RPC_TIMEDOUT : RPC_CANTENCODEARGS);
  }
  close(socket_);
  expect(call(), RPC_CANTSEND, EBADF);
  destroy();
  // A connected socket hears of a port that nobody listens on.
  int connected = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in nobody = lab::loopback(9);
  ASSERT_EQ(::connect(connected, reinterpret_cast<sockaddr*>(&nobody), sizeof nobody), 0);
  connect(9, kLong, connected);
  expect(call(), RPC_CANTRECV, ECONNREFUSED);
  close(connected);
  connect(server.port(), {-1, 0});  // no time to wait for
  expect(call(), RPC_CANTRECV, EINVAL);
}

// With as high descriptors as the host lends; beyond those the numbers alone decide.
TEST_F(UdpTest, DescriptorsUpTo65535CanBeWaitedOn) {
  RpcServer server(0, "127.0.0.1", answer_abc);
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit raised = {65536, std::max<rlim_t>(limit.rlim_max, 65536)};
  if (setrlimit(RLIMIT_NOFILE, &raised) == 0) limit = raised;
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 65536);
  setrlimit(RLIMIT_NOFILE, &limit);
  int low = ::socket(AF_INET, SOCK_DGRAM, 0);
  const int highest = static_cast<int>(limit.rlim_cur) - 1;
  ASSERT_GT(highest, FD_SETSIZE);
  ASSERT_EQ(dup2(low, highest), highest);
  connect(server.port(), kLong, highest);
  EXPECT_EQ(call(), RPC_SUCCESS);
  EXPECT_NE(connect(9, kLong, 65535), nullptr);
  connect(9, kLong, 65536);
  EXPECT_EQ(errno, EMFILE);
  expect_not_created(RPC_SYSTEMERROR, EMFILE);
  for (int descriptor : {low, highest}) close(descriptor);
}

TEST_F(UdpTest, NoMemory) {
  get_rpc_t_varp();  // the block waits for its memory
  for (int granted = 0; granted < 2; ++granted) {
    *__get_rpc_createerr() = {};
    FailingMalloc failing(granted);
    connect(9);
    EXPECT_EQ(errno, ENOMEM);
    expect_not_created(RPC_SYSTEMERROR, ENOMEM);
    EXPECT_EQ(socket_, -1);
  }
}

static_assert(rpc_buffer_size(0) == 4000 && rpc_buffer_size(99) == 4000);
static_assert(rpc_buffer_size(100) == 100 && rpc_buffer_size(8801) == 8804);
static_assert(rpc_buffer_size(UINT32_MAX) == 0xFFFFFFFC);

// --- Refused calls ---------------------------------------------------------------

// A flavour of any number that refreshes a few times. It owns nothing.
struct ScriptedAuth {
  AUTH handle{};
  int refreshes_left = 0;
  bool valid = true;
  bool wants_refresh = false;

  static ScriptedAuth* of(AUTH* auth) { return static_cast<ScriptedAuth*>(auth->private_data); }

  ScriptedAuth(int32_t flavour, int refreshes) : refreshes_left(refreshes) {
    static constexpr auth_ops kOps = {
        [](AUTH*) {},
        [](AUTH*, XDR* xdrs) { return xdrs->ops->get_inline(xdrs, 16) != nullptr; },
        [](AUTH* auth, const opaque_auth*) { return of(auth)->valid; },
        [](AUTH* auth) { return of(auth)->refreshes_left-- > 0; },
        [](AUTH* auth, bool, CLIENT*) { return of(auth)->wants_refresh; },
        [](AUTH*) {},
        [](AUTH*, uint32_t, void*) { return false; }};
    handle.credential.flavour = flavour;
    handle.ops = &kOps;
    handle.private_data = this;
  }
};

TEST_F(UdpTest, RefreshAndFallback) {
  constexpr char kRejected[] = "00000001 00000001 00000001 00000002";
  constexpr char kTooWeak[] = "00000001 00000001 00000001 00000005";
  constexpr char kVersion2[] = "00000001 00000000 00000000 00000000 00000002 00000002 00000003";
  const struct {
    const char* title;
    int32_t flavour;
    const char* hex;
    int refreshes;
    bool confirmed;
    size_t sent;
    bool falls_back;
  } cases[] = {
      {"two at most", 99, kTooWeak, 9, false, 3, false},
      {"nothing weaker than flavour 99", 99, kRejected, 0, false, 1, false},
      {"system falls back to none", kAuthSystem, kRejected, 9, false, 2, true},
      {"not when it was confirmed", kAuthSystem, kRejected, 1, true, 2, false},
      {"not for another reason", kAuthSystem, kTooWeak, 0, false, 1, false},
      {"the first word counts", kAuthSystem, kVersion2, 0, false, 2, true},
  };
  std::string hex;
  RpcServer server(0, "127.0.0.1", [&hex](const std::string& request) {
    return Replies{lab::reply_to(request, hex)};
  });
  for (const auto& test : cases) {
    SCOPED_TRACE(test.title);
    hex = test.hex;
    ScriptedAuth auth(test.flavour, test.refreshes);
    connect(server.port());
    client_->auth = &auth.handle;
    if (test.confirmed) control(CLSET_AUTH_CONFIRMED, &hex);
    const size_t before = server.requests().size();
    EXPECT_NE(call(), RPC_SUCCESS);
    EXPECT_EQ(server.requests().size(), before + test.sent);
    EXPECT_EQ(client_->auth == __brix_authnone_create(), test.falls_back);
  }
}

TEST_F(UdpTest, WhatTheAuthenticationRefuses) {
  RpcServer server(0, "127.0.0.1", answer_abc);
  ScriptedAuth auth(99, 1);
  auth.valid = false;
  connect(server.port());
  client_->auth = &auth.handle;
  expect(call(), RPC_AUTHERROR, kAuthInvalidServerVerifier);
  EXPECT_EQ(auth.refreshes_left, 1);
  EXPECT_EQ(get<int32_t>(CLGET_AUTH_CONFIRMED), 1);

  auth.valid = true;
  auth.wants_refresh = true;
  EXPECT_EQ(call(), RPC_SUCCESS);
  // Without a refresh the next one is not even sent.
  EXPECT_EQ(call(), RPC_SUCCESS) << "the status of the call before";
  EXPECT_EQ(server.requests().size(), 2U);
  client_->auth = nullptr;
  expect(call(), RPC_AUTHERROR, kAuthFailed);
}

}  // namespace

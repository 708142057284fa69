// What holds for clients over UDP and over TCP, and over UDP alone.
#include "rpc/transport/c_transport.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <optional>
#include <set>

#include "liblocal/base/vx_select.h"
#include "rpc/auth/a_none.h"
#include "rpc/auth/auth.h"
#include "rpc/transport/common.h"
#include "rpc/xdr/buffer_size.h"
#include "tests/fakes.h"
#include "tests/rpc_client.h"
#include "tests/rpc_server.h"
#include "tests/work.h"

namespace {

std::atomic<int> next_socket = -1;  // what socket answers; -1: the platform's

}  // namespace

extern "C" int __real_socket(int domain, int type, int protocol);
extern "C" int __wrap_socket(int domain, int type, int protocol) {
  return next_socket != -1 ? next_socket.load() : __real_socket(domain, type, protocol);
}

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
  int refreshes_left = 0;
  bool valid = true;
  bool wants_refresh = false;

  static ScriptedAuth* of(AUTH* auth) { return static_cast<ScriptedAuth*>(auth->private_data); }

  ScriptedAuth(int32_t flavour, int refreshes) : refreshes_left(refreshes) {
    handle.credential.flavour = flavour;
    ops.validate = [](AUTH* auth, const opaque_auth*) { return of(auth)->valid; };
    ops.refresh = [](AUTH* auth) { return of(auth)->refreshes_left-- > 0; };
    ops.needs_refresh = [](AUTH* auth, bool, CLIENT*) { return of(auth)->wants_refresh; };
  }
};

class TransportTest : public ClientTest, public testing::WithParamInterface<Transport> {
 protected:
  bool is_tcp() const { return GetParam() == kTcp; }

  // A client of a new server that answers with `hex` behind the id.
  void connect(const std::string& hex = kAnswer) {
    destroy();
    server_.reset();
    server_.emplace(always(hex), is_tcp() ? SOCK_STREAM : SOCK_DGRAM);
    ASSERT_NE(create(GetParam(), server_->port()), nullptr);
  }

  size_t sent() const { return server_->requests().size(); }

  std::optional<RpcServer> server_;
};

TEST_P(TransportTest, CallsOnTheWire) {
  connect();
  const long before = pieces_held();
  for (int i = 0; i < 301; ++i) expect(call(), RPC_SUCCESS);
  EXPECT_TRUE(pieces_held() == before && result_ == 42);
  const auto requests = server_->requests();
  ASSERT_EQ(requests.size(), 301U);
  uint32_t expected = 0;
  for (const std::string& request : requests) {
    EXPECT_EQ(to_hex(request.substr(4)),
              "000000000000000200000005000000060000000700000000000000000000000000000000"
              "00000008");
    // The first byte of an id is its lowest. It counts up in 16 bits, or down in 32.
    uint32_t id = 0;
    request.copy(reinterpret_cast<char*>(&id), sizeof id);
    EXPECT_TRUE(id == expected || &request == &requests[0]);
    expected = is_tcp() ? id - 1 : (id & 0xFFFF0000) | ((id + 1) & 0xFFFF);
  }
}

TEST_P(TransportTest, RefreshAndFallback) {
  // After the last attempt -1 stands for no authentication; only TCP has allowed methods.
  const std::tuple<const char*, int32_t, const char*, int, bool, size_t, int32_t, uint32_t>
      cases[] = {
          {"two at most", 99, kTooWeak, 9, false, 3, 99, kAuthMethodsDefault},
          {"nothing weaker than 99", 99, kRejected, 0, false, 1, 99, kAuthMethodsDefault},
          {"system to none", kAuthSystem, kRejected, 9, false, 2, kAuthNone, kAuthMethodsDefault},
          {"not when it was confirmed", kAuthSystem, kRejected, 1, true, 2, 1, kAuthMethodsDefault},
          {"not for another reason", kAuthSystem, kTooWeak, 0, false, 1, 1, kAuthMethodsDefault},
          {"the first word counts", kAuthSystem, kVersion2, 0, false, 2, 0, kAuthMethodsDefault},
          {"none is not allowed", kAuthSystem, kRejected, 9, false, 1, -1, kAuthMethodsSystem},
          {"from 6 down", 6, kRejected, 0, false, 3, kAuthNone, kAuthMethodsDefault},
          {"from 30001 down", 30001, kRejected, 0, false, 3, kAuthNone, kAuthMethodsDefault},
          {"from 30013 down", 30013, kRejected, 0, false, 3, kAuthNone, kAuthMethodsDefault},
          {"system is not allowed", 6, kRejected, 0, false, 2, kAuthNone, kAuthMethodsNone},
          {"nothing is allowed", 6, kRejected, 0, false, 1, -1, kAuthMethodsOwn}};
  for (auto [title, flavour, hex, refreshes, confirmed, sends, after, allowed] : cases) {
    if (!is_tcp() && allowed != kAuthMethodsDefault) continue;
    SCOPED_TRACE(title);
    ScriptedAuth auth(flavour, refreshes);
    connect(hex);
    client_->auth = &auth.handle;
    EXPECT_EQ(control(CLSET_AUTH_METHODS, &allowed), is_tcp());
    if (confirmed) control(CLSET_AUTH_CONFIRMED, &allowed);
    EXPECT_NE(call(), RPC_SUCCESS);
    EXPECT_EQ(sent(), sends);
    EXPECT_EQ(client_->auth != nullptr ? client_->auth->credential.flavour : -1, after);
    EXPECT_EQ(get<int32_t>(CLGET_AUTH_CONFIRMED), confirmed ? 1 : 0);
  }
}

TEST_P(TransportTest, WhatTheAuthenticationRefuses) {
  ScriptedAuth auth(99, 1);
  auth.valid = false;
  connect();
  client_->auth = &auth.handle;
  expect(call(), RPC_AUTHERROR, kAuthInvalidServerVerifier);
  EXPECT_EQ(auth.refreshes_left, 1);
  EXPECT_EQ(get<int32_t>(CLGET_AUTH_CONFIRMED), 1);
  auth.valid = true;
  auth.wants_refresh = true;
  EXPECT_EQ(call(), RPC_SUCCESS);
  // Without a refresh the next one is not even sent.
  EXPECT_EQ(call(), RPC_SUCCESS) << "the status of the call before";
  EXPECT_EQ(sent(), 2U);
  client_->auth = nullptr;
  expect(call(), RPC_AUTHERROR, kAuthFailed);
}

TEST_P(TransportTest, ArgumentsAndResultsThatFail) {
  connect();
  auto only_free = [](XDR* xdrs, void*) { return xdrs->operation == xdr_op::kFree; };
  refuse(writes, EINTR);
  expect(call_with(only_free, nullptr), RPC_CANTENCODEARGS);
  EXPECT_EQ(writes.left.exchange(0) == 0, is_tcp()) << "its record has ended";
  EXPECT_TRUE(client_->ops->freeres(client_, only_free, nullptr));
  int32_t argument = 8;
  expect(client_->ops->call(client_, 7, xdr_filter<__brix_xdr_int>, &argument, only_free, nullptr,
                            kLong),
         RPC_CANTDECODERES);
  expect(call(), RPC_SUCCESS);  // the reply to what was encoded is dropped
  // Over UDP arguments have the buffer, of whose 100 bytes 40 are the call's own.
  auto opaque = [](XDR* xdrs, void* size) {
    char bytes[64] = {};
    return __brix_xdr_opaque(xdrs, bytes, *static_cast<uint32_t*>(size));
  };
  for (uint32_t size : {60U, 64U}) {
    EXPECT_EQ(call_with(opaque, &size) == RPC_SUCCESS, is_tcp() || size == 60);
  }
}

TEST_P(TransportTest, FailingSystemCalls) {
  connect();
  // Signals neither end nor repeat a call, nor does input or room that is gone again.
  for (int passing : {EINTR, EAGAIN, ENOMEM, EINPROGRESS}) {
    refuse(reads, passing, 3);
    refuse(writes, passing, is_tcp() ? 3 : 0);
    refuse(waits, EINTR, 20);
    EXPECT_EQ(call(), RPC_SUCCESS) << passing;
  }
  EXPECT_EQ(sent(), 4U);
  for (bool writing : {false, true}) {
    if (writing && !is_tcp()) continue;
    Refusal& calls = writing ? writes : reads;
    refuse(calls, EIO);
    expect(call(), writing ? RPC_CANTSEND : RPC_CANTRECV, EIO);
    refuse(calls, EAGAIN);
    refuse(waits, EBADF);
    expect(call(), writing ? RPC_CANTSEND : RPC_CANTRECV, EBADF);
  }
  EXPECT_EQ(call(), RPC_SUCCESS);
  connect();
  close(socket_);
  for (int i = 0; i < 2; ++i) expect(call(), RPC_CANTSEND, EBADF);
  control(CLSET_FD_NCLOSE, &result_);  // the number may be another's by now
}

TEST_P(TransportTest, KnownRequestsAndThoseThatNeedNoInformation) {
  connect();
  const std::set<uint32_t> over_udp = {1, 2, 3, 4, 5, 6, 8, 9, 27, 29};
  const std::set<uint32_t> over_tcp = {1,  2,  3,  6,  8,  9,  20, 21, 22, 23, 24, 25,
                                       26, 27, 28, 29, 30, 31, 32, 33, 34, 35, 36, 37};
  const std::set<uint32_t> without = {1, 8, 9, 21, 23, 24, 26, 27, 28, 31, 32};
  uint64_t anything[16] = {};
  for (uint32_t request = 0; request < 80; ++request) {
    EXPECT_EQ(control(request, anything), (is_tcp() ? over_tcp : over_udp).contains(request))
        << request;
    EXPECT_EQ(control(request, nullptr), is_tcp() && without.contains(request)) << request;
  }
}

TEST_P(TransportTest, DestroyClosesTheSocketThatIsItsOwnAndGivesItsModeBack) {
  auto mode_of = [](int socket) { return fcntl(socket, F_GETFL) & O_NONBLOCK; };
  connect();
  destroy();
  const long held = pieces_held();
  for (uint32_t request : {CLGET_FD, CLSET_FD_CLOSE, CLSET_FD_NCLOSE}) {
    for (int given : {-1, 0, O_NONBLOCK}) {  // the mode of a socket that is given
      connect();
      EXPECT_EQ(fcntl(socket_, F_GETFD), FD_CLOEXEC);
      EXPECT_EQ(ntohs(get<sockaddr_in>(CLGET_SERVER_ADDR).sin_port), server_->port());
      control(CLSET_FD_NCLOSE, &result_);
      const int other = socket_;
      if (given != -1) fcntl(other, F_SETFL, given);
      ASSERT_NE(create(GetParam(), server_->port(), given != -1 ? other : -1), nullptr);
      EXPECT_TRUE((socket_ == other) == (given != -1) && get<int>(CLGET_FD) == socket_);
      if (given == -1) close(other);
      const int twin = dup(socket_), before = mode_of(twin);
      if (before != 0) control(CLSET_TIMEOUT, nullptr);
      EXPECT_EQ(call(), RPC_SUCCESS);
      EXPECT_EQ(mode_of(twin) != before, is_tcp()) << "as the limits want it";
      const bool closes = request == CLSET_FD_CLOSE || (request == CLGET_FD && given == -1);
      control(request, &result_);
      destroy();
      EXPECT_EQ(fcntl(socket_, F_GETFD) == -1, closes);
      EXPECT_EQ(pieces_held(), held);
      EXPECT_EQ(mode_of(twin), is_tcp() && closes ? 0 : before);
      close(twin);
      if (!closes) close(socket_);
    }
  }
}

TEST_P(TransportTest, CreationFails) {
  get_rpc_t_varp();  // the blocks wait for their memory
  get_rpc_p_varp();
  const int next = dup(0);
  close(next);
  connect();
  int granted = 0;
  for (;; ++granted) {
    FailingMalloc memory(granted);
    errno = 0;
    if (create(GetParam(), server_->port()) != nullptr) break;
    EXPECT_EQ(errno, ENOMEM);
    expect_not_created(RPC_SYSTEMERROR, ENOMEM);
    EXPECT_EQ(socket_, -1);
  }
  EXPECT_EQ(granted, is_tcp() ? 2 : 1) << "record, stream";
  EXPECT_NE(create(GetParam(), kNobody, 65535), nullptr);
  for (int given : {65536, -1}) {  // one that cannot be waited for, and none left
    const DescriptorLimit none(0);
    rpc_set_createerr(RPC_SUCCESS, 0);
    create(GetParam(), kNobody, given);
    EXPECT_EQ(errno, EMFILE);
    expect_not_created(RPC_SYSTEMERROR, EMFILE);
  }
  server_.reset();
  EXPECT_EQ(dup(0), next) << "a socket is left";
  close(next);
}

TEST_P(TransportTest, ASocketThatCannotBeWaitedForIsBoundFirstOverUdpAlone) {
  next_socket = 65536;  // nothing is open there
  const std::string message = printed(0, [this] { create(GetParam(), kNobody); });
  next_socket = -1;
  expect_not_created(RPC_SYSTEMERROR, is_tcp() ? EMFILE : EADDRNOTAVAIL);
  EXPECT_EQ(message.find("Cannot bind socket") == std::string::npos, is_tcp());
}

INSTANTIATE_TEST_SUITE_P(Both, TransportTest, testing::Values(kUdp, kTcp));

using UdpTest = ClientTest;

TEST_F(UdpTest, DatagramsThatAreNotTheReplyAreDropped) {
  auto strays = [](RpcServer& peer) {
    const std::string id = peer.read_request()->substr(0, 4), much(9000, '\xFF');
    const std::string other = reply_to("dddd", "ID OK 00000000 00000007");
    for (const auto& bytes : {std::string(), id.substr(0, 3), other, much, id}) peer.send(bytes);
  };
  RpcServer server(strays, SOCK_DGRAM);
  ASSERT_NE(create(kUdp, server.port()), nullptr);
  errno = EIO;
  expect(call(), RPC_CANTDECODERES);  // as what comes last is no reply
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(UdpTest, RetransmissionByTheTimesThatAreSet) {
  RpcServer silent(always(""), SOCK_DGRAM);  // what it sends is no reply
  ASSERT_NE(create(kUdp, silent.port()), nullptr);
  EXPECT_NE(fcntl(socket_, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_TRUE(equal(get<timeval>(CLGET_TIMEOUT), {-1, -1}));
  EXPECT_TRUE(equal(get<timeval>(CLGET_RETRY_TIMEOUT), kLong));
  // Each retry time and limit, the datagrams sent, and how long one wait is.
  const std::tuple<timeval, timeval, size_t, timeval> cases[] = {
      {{5, 0}, {25, 0}, 5, {5, 0}},          {{5, 0}, {25, 1}, 6, {5, 0}},
      {{0, 500000}, {1, 0}, 2, {0, 500000}}, {{1, 600000}, {3, 200001}, 3, {1, 600000}},
      {{25, 0}, {1, 0}, 1, {25, 0}},         {{0, 0}, {3, 0}, 1, {3, 0}},
      {{0, 0}, {0, 1}, 1, {0, 1}},           {{7, 0}, {0, 0}, 1, {0, 1}}};
  size_t all = 0;
  for (auto [retry, limit, sent, waited] : cases) {
    EXPECT_TRUE(control(CLSET_RETRY_TIMEOUT, &retry) && control(CLSET_TIMEOUT, &limit));
    EXPECT_TRUE(equal(get<timeval>(CLGET_TIMEOUT), limit));
    EXPECT_TRUE(equal(get<timeval>(CLGET_RETRY_TIMEOUT), retry));
    refuse(waits, 0, 100);
    expect(call(), RPC_TIMEDOUT);
    EXPECT_TRUE(equal(last_wait, waited)) << all;
    all += sent;
    for (int i = 0; i < 5000 && silent.requests().size() < all; ++i) usleep(1000);
    const auto requests = silent.requests();
    ASSERT_EQ(requests.size(), all);
    for (size_t i = 1; i <= sent; ++i) EXPECT_EQ(requests[all - i], requests.back());
  }
  refuse(waits, 0, 0);
}

TEST(RpcCommon, TheTableOfDescriptorsHasTheirLimitAndWhatCanBeWaitedFor) {
  const long size = std::min(sysconf(_SC_OPEN_MAX), long{kVxFdSetSize});
  for (int i = 0; i < 2; ++i) EXPECT_EQ(__brix_rpc_dtablesize(), size);
}

static_assert(rpc_buffer_size(0) == 4000 && rpc_buffer_size(99) == 4000);
static_assert(rpc_buffer_size(100) == 100 && rpc_buffer_size(8801) == 8804);
static_assert(rpc_buffer_size(UINT32_MAX) == 0xFFFFFFFC);

}  // namespace

#include "rpc/transport/c_tcp.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <random>
#include <semaphore>

#include "liblocal/hosts/svc_time.h"
#include "liblocal/messages/liblvars.h"
#include "rpc/auth/a_unix.h"
#include "rpc/auth/auth.h"
#include "rpc/auth/auth_methods.h"
#include "rpc/c_gen.h"
#include "rpc/client/rpcvarp.h"
#include "rpc/transport/brsvport.h"
#include "rpc/xdr/x_rec.h"
#include "tests/failing_calls.h"
#include "tests/failing_malloc.h"
#include "tests/rpc_client.h"
#include "tests/rpc_server.h"
#include "tests/stand_ins.h"
#include "tests/tcp_peer.h"

namespace {

using lab::fragment;
using lab::kLong;
using lab::TcpConnection;
using lab::TcpPeer;

constexpr timeval kShort = {0, 50000};
constexpr timeval kNone = {0, 0};
constexpr uint16_t kNobody = 9;        // a port
constexpr uint32_t kMuch = 12 << 20;   // bytes that no socket keeps
constexpr size_t kLargest = 20 << 20;  // bytes of the records that are sent both ways
constexpr int kSmallRecords = 200;

// The bytes that `hex` stands for, ID being that of the call `request`.
std::string wire(std::string hex, const std::string& request) {
  const std::string id = to_hex(request.substr(0, 4));
  for (size_t at = 0; (at = hex.find("ID")) != std::string::npos;) hex.replace(at, 2, id);
  return from_hex(hex);
}

constexpr char kAnswer[] = "8000001C ID 00000001 00000000 00000000 00000000 00000000 0000002A";
constexpr char kOther[] = "8000001C ID 00000001 00000000 00000000 00000000 00000000 00001F02";
constexpr char kRefusal[] = "80000014 ID 00000001 00000001 00000001 00000002";

// Answers every call with `answer`.
TcpPeer::Script all_with(const char* answer) {
  return [answer](TcpConnection& connection) {
    while (auto request = connection.read_record()) connection.send(wire(answer, *request));
  };
}

// Reads nothing until the client is gone.
void stall(TcpConnection& connection) {
  pollfd gone = {connection.socket(), POLLRDHUP, 0};
  poll(&gone, 1, -1);
}

// Cuts `bytes` at random into few and many pieces.
std::vector<std::string> in_pieces(std::mt19937& random, const std::string& bytes) {
  std::vector<std::string> pieces;
  for (size_t at = 0; at < bytes.size(); at += pieces.back().size()) {
    const size_t most = random() % 2 == 0 ? 100 : 1 + (bytes.size() - at) / 4;
    pieces.push_back(bytes.substr(at, 1 + random() % most));
  }
  return pieces;
}

// Sends the bytes of every call back, cut at random into fragments and segments.
void echo(TcpConnection& connection) {
  std::mt19937 random(3);
  while (auto request = connection.read_record()) {
    std::string bytes;
    for (const std::string& piece :
         in_pieces(random, lab::success_to(*request, "") + request->substr(40))) {
      bytes += fragment(piece, false);
    }
    for (const std::string& piece : in_pieces(random, bytes + fragment(""))) connection.send(piece);
  }
}

// A wait function: cancels once it was called `left` times, and lets somebody go on at
// every third call.
struct Watcher {
  int left = INT_MAX;
  int calls = 0;
  int restarts = 0;  // how often the time that was waited began anew
  timeval before{};
  std::counting_semaphore<> go{0};

  static int32_t function(const timeval* elapsed, void* argument, const timeval* now) {
    auto* self = static_cast<Watcher*>(argument);
    EXPECT_TRUE(elapsed->tv_sec < kLong.tv_sec && now->tv_sec > 0);
    if (timercmp(elapsed, &self->before, <)) ++self->restarts;
    self->before = *elapsed;
    if (++self->calls % 3 == 0) self->go.release();
    return self->calls > self->left ? 1 : 0;
  }
};

class TcpTest : public lab::ClientTest {
 protected:
  void create(uint16_t port, int socket = -1, uint32_t size = 0) {
    destroy();
    sockaddr_in address = lab::loopback(port);
    socket_ = socket;
    client_ = __brix_clnttcp_create(&address, 5, 6, &socket_, size, size);
  }

  void connect(const TcpPeer& peer, int socket = -1, uint32_t size = 0) {
    create(peer.port(), socket, size);
    ASSERT_NE(client_, nullptr);
  }

  clnt_stat call_with(xdrproc_t filter, void* arguments, timeval limit) {
    return client_->ops->call(client_, 7, filter, arguments, xdr_filter<__brix_xdr_int>, &result_,
                              limit);
  }

  // Sends kMuch bytes of arguments: at once, or in pieces that wait for the record's end.
  clnt_stat send_much(timeval limit, uint32_t piece = kMuch) {
    auto filter = [](XDR* xdrs, void* size) {
      static char much[kMuch];
      const uint32_t each = *static_cast<uint32_t*>(size);
      uint32_t left = kMuch;
      while (left >= each && __brix_xdr_opaque(xdrs, much, each)) left -= each;
      return left < each;
    };
    return call_with(filter, &piece, limit);
  }

  // Whether a text of `size` bytes comes back from a peer that echoes.
  bool comes_back(size_t size) {
    std::string sent;
    for (size_t i = 0; sent.size() < size; ++i) sent += std::to_string(i);  // tells its place
    sent.resize(size);
    char* text = sent.data();
    char* got = nullptr;
    const clnt_stat status =
        client_->ops->call(client_, 7, xdr_filter<__brix_xdr_wrapstring>, &text,
                           xdr_filter<__brix_xdr_wrapstring>, &got, kLong);
    const bool same = status == RPC_SUCCESS && got == sent;
    free(got);
    return same;
  }

  // Without a watcher, no more.
  void watch(Watcher* watcher, timeval step = {0, 1000}, timeval limit = kLong) {
    rpc_wait waiting = {step, Watcher::function, watcher};
    EXPECT_TRUE(control(CLSET_TIMEOUT, &limit) &&
                control(CLSET_WAIT_FUNCTION, watcher != nullptr ? &waiting : nullptr));
  }

  bool is_non_blocking() const { return (fcntl(socket_, F_GETFL) & O_NONBLOCK) != 0; }

  int get_option(int level, int option) const {
    int value = -1;
    socklen_t length = sizeof value;
    getsockopt(socket_, level, option, &value, &length);
    return value;
  }

  int socket_ = -1;
};

TEST_F(TcpTest, CallsOnTheWire) {
  std::vector<std::string> requests;
  {
    TcpPeer peer([&requests](TcpConnection& connection) {
      while (auto request = connection.read_record()) {
        requests.push_back(*request);
        if (request->size() > 40) connection.send(wire(kAnswer, *request));
      }
    });
    connect(peer);
    for (int i = 0; i < 2; ++i) {
      expect(client_->ops->call(client_, 7, nullptr, nullptr, nullptr, nullptr, kNone),
             RPC_SUCCESS);
    }
    for (int i = 0; i < 300; ++i) ASSERT_EQ(call(), RPC_SUCCESS);
  }
  EXPECT_EQ(result_, 42);
  ASSERT_EQ(requests.size(), 302U) << "one-way calls leave with the next";
  uint32_t before = 0;
  for (const std::string& request : requests) {
    const bool one_way = &request < &requests[2];
    EXPECT_EQ(to_hex(request.substr(4)),
              "000000000000000200000005000000060000000700000000000000000000000000000000" +
                  std::string(one_way ? "" : "00000008"));
    uint32_t now = 0;  // the first byte is the lowest
    request.copy(reinterpret_cast<char*>(&now), sizeof now);
    EXPECT_TRUE(now == before - 1 || &request == &requests.front()) << "ids count down";
    before = now;
  }
}

TEST_F(TcpTest, WhatCallsComeTo) {
  enum Then { kStay, kClose, kReset, kBeUrgent };
  const struct {
    const char* what;
    std::string answer;
    Then then;
    clnt_stat status;
    int32_t detail;
  } cases[] = {
      {"closed", "", kClose, RPC_CANTRECV, ECONNRESET},
      {"closed within a reply", "8000001C ID 00", kClose, RPC_CANTRECV, ECONNRESET},
      {"reset", "", kReset, RPC_CANTRECV, ECONNRESET},
      {"an exception", "", kBeUrgent, RPC_CANTRECV, ECONNRESET},
      {"a fragment too large", "7F7F7F7F", kStay, RPC_CANTRECV, ECONNRESET},
      {"broken units", "80000003 000000", kStay, RPC_CANTRECV, ECONNRESET},
      {"results cut off", "80000018 ID 00000001 00000000 00000000 00000000 00000000", kStay,
       RPC_CANTDECODERES, 0},
      {"program mismatch",
       "80000020 ID 00000001 00000000 00000000 00000000 00000002 00000003 00000004", kStay,
       RPC_PROGVERSMISMATCH, 3},
      {"behind a reply to another call, one that is cut off, nothing, and what is no reply",
       "80000018 00000000 00000001 00000000 00000000 00000000 00000000"
       "80000018 00000000 00000001 00000000 00000000 00000008 12345678 80000000 80000004 00000000" +
           std::string(kAnswer),
       kStay, RPC_SUCCESS, 0},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.what);
    TcpPeer peer([&test](TcpConnection& connection) {
      connection.send(wire(test.answer, *connection.read_record()));
      if (test.then == kReset) connection.reset_at_end();
      if (test.then == kBeUrgent) ::send(connection.socket(), "!", 1, MSG_OOB);
      if (test.then == kStay || test.then == kBeUrgent) stall(connection);
    });
    connect(peer);
    expect(call(), test.status, test.detail);
  }
}

TEST_F(TcpTest, FailingSystemCalls) {
  TcpPeer peer(all_with(kAnswer));
  connect(peer);
  const struct {
    failing_calls::Refusal& calls;
    clnt_stat status;
  } cases[] = {{failing_calls::writes, RPC_CANTSEND}, {failing_calls::reads, RPC_CANTRECV}};
  for (const auto& [calls, status] : cases) {
    for (int passing : {EINTR, EAGAIN, ENOMEM, EINPROGRESS}) {
      failing_calls::refuse(calls, passing, 3);
      failing_calls::refuse(failing_calls::waits, EINTR);
      ASSERT_EQ(call(), RPC_SUCCESS) << passing;
    }
    failing_calls::refuse(calls, EIO);
    expect(call(), status, EIO);
    failing_calls::refuse(calls, EAGAIN);
    failing_calls::refuse(failing_calls::waits, EBADF);
    expect(call(), status, EBADF);
    EXPECT_EQ(call(), RPC_SUCCESS);
  }
}

TEST_F(TcpTest, EveryByteComesBackOnceAndInOrder) {
  TcpPeer peer(echo);
  std::mt19937 random(7);
  std::vector<size_t> sizes = {0, kXdrRecLargePut - 1, kXdrRecLargePut, 1 << 20, kLargest};
  for (int i = 0; i < kSmallRecords; ++i) sizes.push_back(random() % 20000);
  for (size_t i = 0; i < sizes.size(); ++i) {
    if (i % 20 == 0) connect(peer, -1, 100 + static_cast<uint32_t>(random() % 9000));
    ASSERT_TRUE(comes_back(sizes[i])) << sizes[i];
  }
  EXPECT_TRUE(failing_calls::writes.most == 2 && failing_calls::reads.most == 2) << "buffers";
}

TEST_F(TcpTest, RefusedCredentialsFallBackToWhatIsAllowed) {
  const struct {
    int32_t flavour;
    uint32_t methods;  // allowed
    clnt_stat status;
    int32_t after;  // the flavour; -1: no authentication
  } cases[] = {{kAuthSystem, kAuthMethodsDefault, RPC_SUCCESS, kAuthNone},
               {kAuthSystem, kAuthMethodsSystem, RPC_AUTHERROR, -1},
               {30001, kAuthMethodsDefault, RPC_SUCCESS, kAuthSystem},  // one of the stronger
               {30001, kAuthMethodsNone, RPC_SUCCESS, kAuthNone}};
  for (const auto& [flavour, methods, status, after] : cases) {
    TcpPeer peer([](TcpConnection& connection) {
      connection.send(wire(kRefusal, *connection.read_record()));
      all_with(kAnswer)(connection);
    });
    connect(peer);
    client_->auth = __brix_authsys_create_default();
    client_->auth->credential.flavour = flavour;
    uint32_t allowed = methods;
    ASSERT_TRUE(control(CLSET_AUTH_METHODS, &allowed));
    EXPECT_EQ(call(), status);
    EXPECT_EQ(client_->auth != nullptr ? client_->auth->credential.flavour : -1, after);
    EXPECT_EQ(get<int32_t>(CLGET_AUTH_CONFIRMED), status == RPC_SUCCESS ? 1 : 0);
    if (client_->auth != nullptr) client_->auth->ops->destroy(client_->auth);
  }
}

TEST_F(TcpTest, EncodingAndAuthentication) {
  TcpPeer peer(all_with(kAnswer));
  connect(peer);
  auto only_free = [](XDR* xdrs, void*) { return xdrs->operation == xdr_op::kFree; };
  EXPECT_EQ(call_with(only_free, nullptr, kLong), RPC_CANTENCODEARGS);
  EXPECT_TRUE(client_->ops->freeres(client_, only_free, nullptr));
  EXPECT_EQ(call(), RPC_SUCCESS) << "the reply to what was encoded is dropped";
  AUTH strict = *client_->auth;
  auth_ops picky = *strict.ops;
  picky.validate = [](AUTH*, const opaque_auth*) { return false; };
  strict.ops = &picky;
  client_->auth = &strict;
  expect(call(), RPC_AUTHERROR, kAuthInvalidServerVerifier);
  client_->auth = nullptr;
  expect(call(), RPC_AUTHERROR, kAuthFailed);
}

TEST_F(TcpTest, TimeLimits) {
  TcpPeer peer([](TcpConnection& connection) {
    (void)connection.read_record();
    connection.send(wire(kAnswer, *connection.read_record()));
    const std::string late = wire(kAnswer, *connection.read_record());
    connection.send(late.substr(0, 9));
    (void)connection.read_record();
    connection.send(late.substr(9));
    all_with(kOther)(connection);
  });
  connect(peer);
  expect(call(kShort), RPC_TIMEDOUT);
  EXPECT_EQ(get<rpc_wait>(CLGET_WAIT_FUNCTION).step.tv_usec, kShort.tv_usec);
  EXPECT_EQ(call(), RPC_SUCCESS);
  expect(call(kShort), RPC_TIMEDOUT);  // within the reply
  expect(call(kNone), RPC_TIMEDOUT);   // sent, and not waited for
  EXPECT_EQ(call(), RPC_SUCCESS) << "the rest of the late reply is dropped";
  EXPECT_EQ(result_, 7938);
  TcpPeer silent(stall);
  connect(silent);
  Watcher watcher;
  watch(&watcher, {0, 35000}, kShort);
  expect(call(), RPC_TIMEDOUT);
  EXPECT_EQ(watcher.before.tv_usec, kShort.tv_usec) << "the last step ends with the limit";
}

TEST_F(TcpTest, NothingProlongsTheWaitForAReply) {
  // Signals, replies to another call, what is none, a record without end.
  for (const char* flood : {"", "80000018 00000000 00000001 00000000 00000000 00000000 00000000",
                            "80000004 00000000", "00000004 00000000"}) {
    SCOPED_TRACE(flood);
    TcpPeer peer([flood](TcpConnection& connection) {
      std::string much = wire(flood, *connection.read_record());
      for (int i = 0; i < 12; ++i) much += much;
      while (!much.empty() && connection.send(much)) {
      }
      stall(connection);
    });
    connect(peer);
    failing_calls::refuse(failing_calls::waits, EINTR, *flood == '\0' ? INT_MAX : 0);
    EXPECT_EQ(call(kShort), RPC_TIMEDOUT);
  }
}

TEST_F(TcpTest, CancellationAtEveryCallOfTheWaitFunction) {
  TcpPeer peer([](TcpConnection& connection) {
    while (auto request = connection.read_record()) {
      usleep(5000);  // some steps
      connection.send(wire(kAnswer, *request));
    }
  });
  connect(peer);
  clnt_stat status = RPC_CANCELLED;
  int last = 0;
  for (; status == RPC_CANCELLED; ++last) {
    Watcher watcher;
    watcher.left = last;
    watch(&watcher);
    status = call();
    expect(status, watcher.calls > last ? RPC_CANCELLED : RPC_SUCCESS);
    watch(nullptr);
    ASSERT_EQ(call(), RPC_SUCCESS) << "usable after cancelling " << last;
  }
  EXPECT_GE(last, 4) << "before and after, for writing and for reading";
}

TEST_F(TcpTest, FailuresOfWriting) {
  TcpPeer stalled(stall);
  connect(stalled);
  EXPECT_EQ(send_much(kShort), RPC_TIMEDOUT) << "while the arguments are encoded";
  connect(stalled, -1, kMuch + 1000);
  expect(send_much(kShort, 4000), RPC_CANTSEND, ETIMEDOUT);  // at the end of the record
  connect(stalled);
  Watcher watcher;
  watcher.left = 1;
  watch(&watcher);
  expect(send_much(kLong, kXdrRecLargePut), RPC_CANCELLED);
  EXPECT_EQ(watcher.calls, 2) << "after the first of many writes";
  connect(stalled);
  watcher.left = 8;
  watch(&watcher);
  expect(send_much(kLong), RPC_CANCELLED);
  char byte = 0;
  EXPECT_EQ(recv(socket_, &byte, 1, MSG_DONTWAIT), 0) << "the connection is shut down";
  watch(nullptr);
  expect(call(), RPC_CANTSEND, EPIPE);  // a part of a record has left
  TcpPeer urgent([](TcpConnection& connection) {
    ::send(connection.socket(), "!", 1, MSG_OOB);
    stall(connection);
  });
  connect(urgent);
  expect(send_much(kLong), RPC_CANTSEND, ECONNRESET);
}

// More calls than the sockets hold, to a peer that pauses before each portion.
TEST_F(TcpTest, ABurstOfOneWayCallsArrivesWhole) {
  constexpr uint32_t kCalls = 2500;
  size_t arrived = 0;
  std::binary_semaphore all{0};
  TcpPeer peer([&](TcpConnection& connection) {
    for (bool on = true; on; ++arrived) {
      if (arrived % 250 == 0) usleep(20000);
      auto request = connection.read_record();
      on = request.has_value() && request->size() == 40 + 4096;
    }
    all.release();
  });
  connect(peer);
  auto filter = [](XDR* xdrs, void* bytes) { return __brix_xdr_opaque(xdrs, bytes, 4096); };
  char bytes[4096] = {};
  for (uint32_t i = 0; i < kCalls; ++i) {
    ASSERT_EQ(client_->ops->call(client_, 7, filter, bytes, nullptr, nullptr, kNone), RPC_SUCCESS);
  }
  expect(call(kNone), RPC_TIMEDOUT);  // the last one takes along what waits
  destroy();
  all.acquire();
  EXPECT_EQ(arrived, kCalls + 1);
}

// While the client cannot write, the peer sends before it reads on, and reads slowly.
TEST_F(TcpTest, ASlowPeerIsWaitedForAndItsInputReadAhead) {
  constexpr size_t kRecord = kMuch + 48;  // with two headers and that of the call
  constexpr size_t kPortion = 1 << 20;    // taken when the client has waited
  // More empty fragments than may be read, a record, both kinds.
  for (const std::string& early :
       {std::string(kXdrRecMaxEmptyFragments * 4 + 4, '\0'), fragment("stray---"),
        std::string(8, '\0') + fragment("stray---")}) {
    Watcher watcher;
    TcpPeer peer([&](TcpConnection& connection) {
      const int small = 1 << 16;
      setsockopt(connection.socket(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
      for (char byte : early) connection.send(std::string(1, byte));
      std::string record;
      for (size_t got = kPortion; got == kPortion;) {
        while (watcher.go.try_acquire()) {
        }
        if (!watcher.go.try_acquire_for(std::chrono::seconds(kLong.tv_sec))) return;
        const size_t before = record.size();
        record += connection.read_bytes(std::min(kPortion, kRecord - before));
        got = record.size() - before;
      }
      connection.send(wire(kAnswer, record.substr(4)));
      all_with(kAnswer)(connection);
    });
    connect(peer);
    watch(&watcher);
    ASSERT_TRUE(control(CLSET_WATCH_INPUT, client_));
    EXPECT_EQ(send_much(kLong), RPC_SUCCESS);
    EXPECT_GE(watcher.restarts, 3);
    EXPECT_EQ(call(), RPC_SUCCESS);
    EXPECT_EQ(result_, 42);
  }
}

TEST_F(TcpTest, ControlOfTheWait) {
  TcpPeer peer(stall);
  connect(peer);
  EXPECT_TRUE(control(CLSET_TIMEOUT, nullptr));
  EXPECT_EQ(get<timeval>(CLGET_TIMEOUT).tv_sec, 86400);
  EXPECT_EQ(get<rpc_wait>(CLGET_WAIT_FUNCTION).step.tv_sec, 86400);
  EXPECT_EQ(get<int32_t>(CLGET_WAIT_STATE), kWaitNoLimit);
  Watcher watcher;
  watch(&watcher);
  timeval time = {7, 8};
  EXPECT_TRUE(control(CLSET_TIMEOUT, &time));
  EXPECT_EQ(get<int32_t>(CLGET_WAIT_STATE), kWaitSet);
  EXPECT_EQ(get<rpc_wait>(CLGET_WAIT_FUNCTION).argument, &watcher);
  EXPECT_EQ(get<rpc_wait>(CLGET_WAIT_FUNCTION).step.tv_usec, 1000);
  EXPECT_TRUE(control(CLSET_WAIT_FUNCTION, nullptr));
  EXPECT_EQ(get<rpc_wait>(CLGET_WAIT_FUNCTION).function, nullptr);
  EXPECT_EQ(get<rpc_wait>(CLGET_WAIT_FUNCTION).step.tv_usec, 8);
  for (int32_t state : {int32_t{kWaitOfCall}, 3}) {
    EXPECT_EQ(control(CLSET_WAIT_STATE, &state), state == kWaitOfCall);
    EXPECT_EQ(get<int32_t>(CLGET_WAIT_STATE), kWaitOfCall);
  }
}

TEST_F(TcpTest, OtherControlRequests) {
  TcpPeer peer(stall);
  rpc_install_auth_methods([](const sockaddr_in* address, uint32_t* methods) {
    *methods = address->sin_port;
    return true;
  });
  connect(peer);
  rpc_install_auth_methods(nullptr);
  EXPECT_EQ(get<uint32_t>(CLGET_AUTH_METHODS), htons(peer.port()));
  uint32_t methods = 3;
  ASSERT_TRUE(control(CLSET_AUTH_METHODS, &methods));
  EXPECT_EQ(get<uint32_t>(CLGET_AUTH_METHODS), 3U);
  EXPECT_EQ(get<XDR*>(CLGET_STREAM), get_xdr_from_chandle(client_));
  EXPECT_EQ(get<int32_t>(CLGET_ONE_CALL_ENABLED), 0);
  EXPECT_TRUE(control(CLSET_ONE_CALL_ENABLED, client_));
  EXPECT_EQ(get<int32_t>(CLGET_ONE_CALL_ENABLED), 1);
  EXPECT_EQ(get_option(SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(get_option(IPPROTO_TCP, TCP_NODELAY), 1) << "from the beginning";
  for (int on : {0, 1}) {
    void* pointer = on != 0 ? client_ : nullptr;
    ASSERT_TRUE(control(CLSET_NODELAY, pointer) && control(CLSET_AUTH_CONFIRMED, pointer));
    EXPECT_EQ(get_option(IPPROTO_TCP, TCP_NODELAY), on);
    EXPECT_EQ(get<int32_t>(CLGET_AUTH_CONFIRMED), on);
  }
  const std::pair<uint32_t, int> sizes[] = {{CLSET_RECEIVE_SIZE, SO_RCVBUF},
                                            {CLSET_SEND_SIZE, SO_SNDBUF}};
  for (const auto& [set, option] : sizes) {
    ASSERT_TRUE(control(set, reinterpret_cast<void*>(30000)));
    EXPECT_EQ(get_option(SOL_SOCKET, option), 60000) << "the system doubles it";
    EXPECT_EQ(get<int>(set - 1), 60000);
  }
  for (uint32_t request : {4U, 5U, 7U, 19U, 38U, 69U, 70U, UINT32_MAX}) {
    EXPECT_FALSE(control(request, &methods)) << request;
  }
  EXPECT_FALSE(control(CLGET_TIMEOUT, nullptr));
}

TEST_F(TcpTest, TheOneCallOption) {
  static std::string requests;
  requests.clear();
  TcpPeer peer(all_with(kAnswer));
  connect(peer);
  XDR* stream = get_xdr_from_chandle(client_);
  xdr_ops told = *stream->ops;
  told.control = [](XDR*, uint32_t request, void*) {
    requests += std::to_string(request);
    return true;
  };
  stream->ops = &told;
  for (uint32_t request : {CLSET_ONE_CALL, CLSET_ONE_CALL_ENABLED}) {
    EXPECT_TRUE(control(request, client_) && call() == RPC_SUCCESS);
    EXPECT_EQ(get<int32_t>(CLGET_ONE_CALL_ENABLED), request == CLSET_ONE_CALL ? 0 : 1);
  }
  EXPECT_EQ(requests, "") << "not enabled, not armed";
  EXPECT_TRUE(control(CLSET_ONE_CALL, client_) && call() == RPC_SUCCESS && call() == RPC_SUCCESS);
  EXPECT_EQ(requests, "01") << "for one call";
  destroy();  // while its table is there
}

TEST_F(TcpTest, Descriptors) {
  TcpPeer peer(all_with(kAnswer));
  connect(peer);
  ASSERT_TRUE(control(CLSET_FD_NCLOSE, nullptr) && call() == RPC_SUCCESS);
  destroy();
  EXPECT_FALSE(is_non_blocking());
  // One of the caller's is left open, in the mode it had.
  for (bool non_blocking : {false, true}) {
    fcntl(socket_, F_SETFL, non_blocking ? O_NONBLOCK : 0);
    connect(peer, socket_);
    EXPECT_TRUE(!non_blocking || control(CLSET_TIMEOUT, nullptr));
    EXPECT_EQ(call(), RPC_SUCCESS);
    EXPECT_EQ(is_non_blocking(), !non_blocking) << "as the limits want it";
    destroy();
    EXPECT_EQ(is_non_blocking(), non_blocking);
  }
  connect(peer, socket_);
  ASSERT_TRUE(control(CLSET_FD_CLOSE, nullptr));
  destroy();
  EXPECT_EQ(fcntl(socket_, F_GETFD), -1);
}

TEST_F(TcpTest, CreationFails) {
  using failing_calls::connects;
  get_rpc_p_varp();  // the block waits for its memory
  // Connections wait here, unaccepted.
  const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in name{};
  socklen_t length = sizeof name;
  ASSERT_TRUE(listen(listener, 100) == 0 &&
              getsockname(listener, reinterpret_cast<sockaddr*>(&name), &length) == 0);
  const uint16_t port = ntohs(name.sin_port);
  const int next = dup(0);
  close(next);
  // What making and destroying a client comes to; no socket is left.
  auto error_of = [this, next](uint16_t server, int socket = -1) {
    create(server, socket);
    const bool made = client_ != nullptr;
    destroy();
    EXPECT_EQ(dup(0), next);
    close(next);
    EXPECT_TRUE(made || __get_rpc_createerr()->status == RPC_SYSTEMERROR);
    return made ? 0 : __get_rpc_createerr()->cause.error_number;
  };
  EXPECT_EQ(error_of(kNobody, 65536), EMFILE);
  const struct {
    int refused, times;  // connects
    uint16_t server;
    int error;
  } cases[] = {{0, 0, kNobody, ECONNREFUSED},
               {ENETUNREACH, 1, port, ENETUNREACH},
               {EINTR, 1, kNobody, ECONNREFUSED},
               {EINTR, 1, port, 0},
               {EADDRINUSE, 5, port, 0}};
  for (const auto& [refused, times, server, error] : cases) {
    failing_calls::refuse(connects, refused, times);
    EXPECT_EQ(error_of(server), error) << refused;
  }
  int allowed = 0;
  for (int error = ENOMEM; error != 0; ++allowed) {
    FailingMalloc memory(allowed);
    error = error_of(port);
    ASSERT_TRUE(error == 0 || error == ENOMEM);
  }
  EXPECT_GE(allowed, 4) << "handle, record, stream";
  // Addresses in use are tried twice for each port; those of a process stay configured.
  auto tries_with_two_ports = [&error_of] {
    failing_calls::refuse(connects, EADDRINUSE, 100);
    bool failed =
        rpcport_add_range(42000, 42001, kPortConnection) == 0 && error_of(kNobody) == EADDRINUSE;
    return failed ? 100 - connects.left : 0;
  };
  EXPECT_EXIT(_exit(tries_with_two_ports()), testing::ExitedWithCode(4), "");
  close(listener);
}

// The last of all exit functions finds the blocks of the process gone.
TEST_F(TcpTest, ClientsAreMadeAndUsedAtTheVeryEnd) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  static auto at_the_end = [this] {
    TcpPeer peer(all_with(kAnswer));
    connect(peer);
    rpc_install_auth_methods(nullptr);
    _exit(get_rpc_p_varp() == nullptr && call() == RPC_SUCCESS ? 42 : 1);
  };
  auto end = [] {
    atexit([] { at_the_end(); });
    get_rpc_p_varp();
    exit(0);
  };
  EXPECT_EXIT(end(), testing::ExitedWithCode(42), "");
}

TEST_F(TcpTest, CreationBeginsANewServiceTime) {
  stand_ins::now = 1000;
  svc_time_reset();
  EXPECT_EQ(svc_time(), 1000);
  stand_ins::now = 2000;
  create(kNobody);
  EXPECT_EQ(svc_time(), 2000);
  stand_ins::now = 0;
  svc_time_reset();
}

// Environments need a process each, whose peer ends before it does.
TEST_F(TcpTest, BlockingModes) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // Bit 0: it blocks with a limit; 1: without; 2: without while input is watched.
  auto modes_with = [this](const char* value) {
    setenv("KIV_BLOCKING_RPC", value, 1);
    TcpPeer peer(all_with(kAnswer));
    connect(peer);
    int modes = 0;
    for (int bit = 0; bit < 3; ++bit) {
      if (bit == 1) control(CLSET_TIMEOUT, nullptr);
      if (bit == 2) control(CLSET_WATCH_INPUT, client_);
      if (call() == RPC_SUCCESS && !is_non_blocking()) modes |= 1 << bit;
    }
    return modes;
  };
  const std::pair<const char*, int> cases[] = {{"must", 7}, {"no", 6}, {"fALSE", 2}};
  for (const auto& [value, modes] : cases) {
    EXPECT_EXIT(_exit(modes_with(value)), testing::ExitedWithCode(modes), "");
  }
}

TEST_F(TcpTest, SwitchesOfTheDebugDirectoryAndOfBufferSizes) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const char* name : {"/run/nowritev", "/run/noreadv"}) lab::write_file(name, "");
  auto most_buffers = [this] {
    setenv("KIV_DEBUG_DIR", "/run", 1);
    setenv("KIV_SOCK_BUF_UNSET", "Yes", 1);
    Debug = 1;
    TcpPeer peer(echo);
    connect(peer);
    const int before = get_option(SOL_SOCKET, SO_SNDBUF);
    const bool works = control(CLSET_SEND_SIZE, reinterpret_cast<void*>(4321)) &&
                       get_option(SOL_SOCKET, SO_SNDBUF) == before && comes_back(100000);
    return works ? failing_calls::writes.most + failing_calls::reads.most : 0;
  };
  EXPECT_EXIT(_exit(most_buffers()), testing::ExitedWithCode(2),
              "The environment variable KIV_SOCK_BUF_UNSET is set to 'Yes'. This overrides "
              "default behavior");
  EXPECT_TRUE(unlink("/run/nowritev") == 0 && unlink("/run/noreadv") == 0);
}

TEST_F(TcpTest, CreationByName) {
  TcpPeer peer(all_with(kOther), 7938);
  setenv("KIV_TRANSPORT", "SPP", 1);
  for (const char* name : {"tcp", "PIPE", "shm", "spp", ""}) {
    client_ = __brix_clnt_create("", 5, 6, name);
    ASSERT_NE(client_, nullptr) << name;
    EXPECT_EQ(get<timeval>(CLGET_TIMEOUT).tv_sec, 30);
    EXPECT_EQ(call(), RPC_SUCCESS);
    EXPECT_EQ(result_, 7938);
    destroy();
  }
  unsetenv("KIV_TRANSPORT");
}

}  // namespace

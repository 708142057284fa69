#include "rpc/transport/c_tcp.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "liblocal/base/svc_time.h"
#include "liblocal/messages/liblvars.h"
#include "rpc/auth/auth_methods.h"
#include "rpc/transport/brsvport.h"
#include "rpc/xdr/x_rec.h"
#include "tests/fakes.h"
#include "tests/rpc_client.h"
#include "tests/rpc_server.h"

namespace {

using namespace fakes;
using namespace machine;

constexpr timeval kShort = {0, 50000};
constexpr timeval kNone = {0, 0};
constexpr uint32_t kMuch = 12 << 20;  // bytes that no socket keeps

constexpr char kAnswer[] = "ID OK 00000000 0000002A";

// Reads nothing until the client is gone.
void stall(RpcServer& server) {
  pollfd gone = {server.socket(), POLLRDHUP, 0};
  poll(&gone, 1, -1);
}

// Sends the arguments of every call back.
void echo(RpcServer& server) {
  while (auto request = server.read_request()) {
    server.send(fragment(reply_to(*request, "ID OK 00000000") + request->substr(40)));
  }
}

// A wait function: cancels once it was called `left` times.
struct Watcher {
  int left = INT_MAX;
  std::atomic<int> calls = 0;
  int restarts = 0;  // how often the time that was waited began anew
  timeval before{LONG_MAX, 0};

  static int32_t function(const timeval* elapsed, void* argument, const timeval* now) {
    auto* self = static_cast<Watcher*>(argument);
    const bool anew = timercmp(elapsed, &self->before, <);
    EXPECT_TRUE(elapsed->tv_sec < (anew ? 1 : kLong.tv_sec) && now->tv_sec > 0);
    if (anew) ++self->restarts;
    self->before = *elapsed;
    return ++self->calls > self->left ? 1 : 0;
  }
};

class TcpTest : public ClientTest {
 protected:
  void connect(const RpcServer& server, int socket = -1, uint32_t size = 0) {
    ASSERT_NE(create(kTcp, server.port(), socket, size), nullptr);
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

  // Whether a text of `size` bytes comes back from a server that echoes.
  bool comes_back(size_t size) {
    std::string sent;
    for (size_t i = 0; sent.size() < size; ++i) sent += std::to_string(i);  // tells its place
    sent.resize(size);
    char *text = sent.data(), *got = nullptr;
    const xdrproc_t filter = xdr_filter<__brix_xdr_wrapstring>;
    const bool same =
        client_->ops->call(client_, 7, filter, &text, filter, &got, kLong) == RPC_SUCCESS &&
        got == sent;
    free(got);
    return same;
  }

  // Without a watcher, no more.
  void watch(Watcher* watcher, timeval step = {0, 1000}, timeval limit = kLong) {
    rpc_wait waiting = {step, Watcher::function, watcher};
    EXPECT_TRUE(control(CLSET_TIMEOUT, &limit) &&
                control(CLSET_WAIT_FUNCTION, watcher != nullptr ? &waiting : nullptr));
  }

  int get_option(int level, int option) const {
    int value = -1;
    socklen_t length = sizeof value;
    getsockopt(socket_, level, option, &value, &length);
    return value;
  }
};

TEST_F(TcpTest, WhatCallsComeTo) {
  enum Then { kStay, kClose };
  const std::tuple<const char*, const char*, Then, clnt_stat, int32_t> cases[] = {
      {"closed", "", kClose, RPC_CANTRECV, ECONNRESET},
      {"closed within a reply", "8000001C ID 00", kClose, RPC_CANTRECV, ECONNRESET},
      {"a fragment too large", "7F7F7F7F", kStay, RPC_CANTRECV, ECONNRESET},
      {"broken units", "80000003 000000", kStay, RPC_CANTRECV, ECONNRESET},
      {"results cut off", "80000018 ID OK 00000000", kStay, RPC_CANTDECODERES, 0},
      {"in too much", "00000018 ID OK 00000000 7F7F7F7F", kStay, RPC_CANTRECV, ECONNRESET},
      {"versions", "80000020 ID OK 00000002 00000003 00000004", kStay, RPC_PROGVERSMISMATCH, 3},
      {"behind a reply to another call, one that is cut off, nothing, and what is no reply",
       "8000001C 00000000 00000001 00000000 00000002 00000004 61626364 00000000"
       "80000018 00000000 00000001 00000000 00000000 00000008 12345678 80000000 80000004 00000000"
       "8000001C ID OK 00000000 0000002A",
       kStay, RPC_SUCCESS, 0}};
  for (const auto& [what, answer, then, status, detail] : cases) {
    SCOPED_TRACE(what);
    RpcServer server([hex = answer, then = then](RpcServer& peer) {
      peer.send(reply_to(*peer.read_request(), hex));
      if (then != kClose) stall(peer);
    });
    connect(server);
    const long before = pieces_held();
    expect(call(), status, detail);
    EXPECT_EQ(pieces_held(), before);
  }
}

TEST_F(TcpTest, EveryByteComesBackOnceAndInOrder) {
  RpcServer server(echo);
  for (uint32_t buffers : {100U, 9000U}) {
    connect(server, -1, buffers);
    for (size_t size : {size_t{0}, size_t{7999}, size_t{8003}, kXdrRecMaxFragment - size_t{100}}) {
      ASSERT_TRUE(comes_back(size)) << size;
    }
  }
  EXPECT_TRUE(writes.most == 2 && reads.most == 2) << "buffers";
}

TEST_F(TcpTest, TimeLimits) {
  RpcServer server([](RpcServer& peer) {
    const std::string late = fragment(reply_to(*peer.read_request(), kAnswer));
    peer.send(late.substr(0, 1));
    usleep(5000);
    peer.send(late.substr(1, 8));
    (void)peer.read_request();
    peer.send(late.substr(9));
    always("ID OK 00000000 00001F02")(peer);
  });
  connect(server);
  expect(call(kShort), RPC_TIMEDOUT);  // within the reply
  EXPECT_EQ(get<rpc_wait>(CLGET_WAIT_FUNCTION).step.tv_usec, kShort.tv_usec);
  expect(call(kNone), RPC_TIMEDOUT);  // sent, and not waited for
  EXPECT_TRUE(call() == RPC_SUCCESS && result_ == 7938) << "the rest of the late reply is dropped";
  RpcServer silent(stall);
  connect(silent);
  Watcher watcher;
  watch(&watcher, {0, 35000}, kShort);
  expect(call(), RPC_TIMEDOUT);
  EXPECT_EQ(watcher.before.tv_usec, kShort.tv_usec) << "the last step ends with the limit";
  refuse(waits, EINTR, INT_MAX);
  expect(call(), RPC_TIMEDOUT);
  // Times that cannot be waited for as they are.
  const std::pair<timeval, timeval> steps[] = {{{-1, 5}, {1000000000, 0}},
                                               {{3, -1}, {1000000000, 0}},
                                               {{LONG_MAX, 0}, {1000000000, 0}},
                                               {{1000000000, 1}, {1000000000, 0}},
                                               {{1, 2000001}, {3, 1}}};
  for (const auto& [step, waited] : steps) {
    rpc_wait waiting = {step, nullptr, nullptr};
    ASSERT_TRUE(control(CLSET_TIMEOUT, nullptr) && control(CLSET_WAIT_FUNCTION, &waiting));
    refuse(reads, EAGAIN);
    refuse(waits, EBADF);
    expect(call(), RPC_CANTRECV, EBADF);
    EXPECT_TRUE(equal(last_wait, waited)) << step.tv_sec;
  }
}

// What is not the reply, or only a part of it, takes no time from the reading after it.
TEST_F(TcpTest, EveryReadingHasItsOwnLimit) {
  Watcher watcher;
  RpcServer server([&watcher](RpcServer& peer) {
    const std::string reply = fragment(reply_to(*peer.read_request(), kAnswer));
    const std::string pieces[] = {fragment("another reply---"), std::string(4, '\0'),
                                  reply.substr(0, 2), reply.substr(2, 6), reply.substr(8)};
    for (const std::string& piece : pieces) {
      const int before = watcher.calls;
      for (int i = 0; i < 1000 && watcher.calls < before + 4; ++i) usleep(1000);
      peer.send(piece);
    }
  });
  connect(server);
  watch(&watcher, {0, 5000});
  EXPECT_EQ(call(), RPC_SUCCESS);
  EXPECT_EQ(watcher.restarts, 5) << "one for each reading that waited";
}

TEST_F(TcpTest, CancellationAtEveryCallOfTheWaitFunction) {
  RpcServer server([](RpcServer& peer) {
    do usleep(5000);  // some steps
    while (peer.answer(kAnswer));
  });
  connect(server);
  Watcher watcher;
  watcher.left = -1;
  do {
    watcher.calls = 0;
    ++watcher.left;
    watch(&watcher);
    const clnt_stat status = call();
    expect(status, watcher.calls > watcher.left ? RPC_CANCELLED : RPC_SUCCESS);
    watch(nullptr);
    ASSERT_EQ(call(), RPC_SUCCESS) << "usable after cancelling " << watcher.left;
  } while (watcher.calls > watcher.left);
  EXPECT_GE(watcher.left, 4) << "before and after, for writing and for reading";
}

TEST_F(TcpTest, FailuresOfWriting) {
  RpcServer stalled(stall);
  // `left` calls of the wait function pass.
  const std::tuple<uint32_t, uint32_t, timeval, int, clnt_stat, int32_t> cases[] = {
      {100, kMuch, kShort, INT_MAX, RPC_TIMEDOUT, 0},                  // in the arguments
      {kMuch + 1000, 4000, kShort, INT_MAX, RPC_CANTSEND, ETIMEDOUT},  // at their end
      {100, kXdrRecLargePut, kLong, 1, RPC_CANCELLED, 0},              // after one of many writes
      {100, kMuch, kLong, 8, RPC_CANCELLED, 0}};
  for (const auto& [buffer, piece, limit, left, status, detail] : cases) {
    connect(stalled, -1, buffer);
    Watcher watcher;
    watcher.left = left;
    watch(&watcher, {0, 1000}, limit);
    expect(send_much(kLong, piece), status, detail);
    EXPECT_TRUE(left == INT_MAX || watcher.calls == left + 1) << watcher.calls;
    char byte = 0;
    EXPECT_EQ(recv(socket_, &byte, 1, MSG_DONTWAIT), 0) << "the connection is shut down";
    watch(nullptr);
    expect(call(), RPC_CANTSEND, EPIPE);  // a part of a record has left
  }
  RpcServer urgent([](RpcServer& peer) {
    ::send(peer.socket(), "!", 1, MSG_OOB);
    stall(peer);
  });
  connect(urgent);
  expect(send_much(kLong), RPC_CANTSEND, ECONNRESET);
}

TEST_F(TcpTest, OneWayCallsLeaveWithTheNextCall) {
  RpcServer server(always(kAnswer));
  connect(server);
  refuse(writes, EIO);
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(client_->ops->call(client_, 7, nullptr, nullptr, nullptr, nullptr, kNone), 0);
  }
  EXPECT_EQ(writes.left.exchange(0), 1) << "nothing was written";
  EXPECT_EQ(call(), RPC_SUCCESS);
  EXPECT_EQ(server.requests().size(), 3U);
}

// While the client cannot write, the peer sends before it reads on, and reads slowly.
TEST_F(TcpTest, ASlowPeerIsWaitedForAndItsInputReadAhead) {
  constexpr size_t kRecord = kMuch + 48;  // with two headers and that of the call
  const std::string stray = fragment("stray---");
  const std::string empty_ones(kXdrRecMaxEmptyFragments * 4 + 4, '\0');  // more than may be read
  // What comes (nothing: the end of input), how reading it fails at first, and the limit.
  const std::tuple<std::string, int, timeval, clnt_stat> cases[] = {
      {empty_ones, EINTR, kLong, RPC_SUCCESS},
      {empty_ones, EAGAIN, kNone, RPC_TIMEDOUT},
      {stray, 0, kLong, RPC_SUCCESS},
      {std::string(8, '\0') + stray, 0, kLong, RPC_SUCCESS},
      {"", 0, kLong, RPC_CANTRECV}};
  for (const auto& [early, error, limit, status] : cases) {
    Watcher watcher;
    RpcServer server([&watcher, &bytes = early](RpcServer& peer) {
      const int small = 1 << 16;
      setsockopt(peer.socket(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
      for (char byte : bytes) {
        peer.send(std::string(1, byte));
        if (bytes.size() < 100) usleep(2000);  // each is read by itself
      }
      if (bytes.empty()) shutdown(peer.socket(), SHUT_WR);
      std::string record, portion = " ";
      while (record.size() < kRecord && !portion.empty()) {  // each when the client has waited
        const int before = watcher.calls;
        for (int i = 0; i < 200 && watcher.calls < before + 3; ++i) usleep(1000);
        portion = peer.read_bytes(std::min<size_t>(1 << 20, kRecord - record.size()));
        record += portion;
      }
      peer.send(fragment(reply_to(record.substr(4), kAnswer)));
      always(kAnswer)(peer);
    });
    connect(server);
    watch(&watcher, {0, 1000}, limit);
    ASSERT_TRUE(control(CLSET_WATCH_INPUT, client_));
    refuse(reads, error, error != 0 ? 2000 : 0);  // more than there are writes
    EXPECT_EQ(send_much(limit), status);
    EXPECT_GE(watcher.restarts, 3);
    watch(&watcher);
    EXPECT_EQ(call() == RPC_SUCCESS && result_ == 42, !early.empty());
  }
}

TEST_F(TcpTest, ControlRequests) {
  RpcServer server(stall);
  rpc_install_auth_methods([](const sockaddr_in* address, uint32_t* methods) {
    *methods = address->sin_port;
    return true;
  });
  connect(server);
  // Whether these are the wait, its state and the length of a step.
  auto waits = [this](timeval wait, int32_t state, timeval step) {
    return equal(get<timeval>(2), wait) && equal(get<rpc_wait>(25).step, step) &&
           get<int32_t>(36) == state;
  };
  timeval day = {86400, 0}, time = {7, 8};
  EXPECT_TRUE(control(1, nullptr) && waits(day, 2, day));
  Watcher watcher;
  watch(&watcher);
  EXPECT_EQ(get<rpc_wait>(25).argument, &watcher);
  EXPECT_TRUE(control(1, &time) && waits(time, 1, {0, 1000}));
  EXPECT_TRUE(control(24, nullptr) && waits(time, 1, time));
  EXPECT_EQ(get<rpc_wait>(25).function, nullptr);
  for (int32_t state : {0, 1, 2, 3, -1}) {
    EXPECT_EQ(control(37, &state), state >= 0 && state <= 2);
    EXPECT_EQ(get<int32_t>(36), state >= 0 && state <= 2 ? state : 2);
  }
  EXPECT_EQ(get<uint32_t>(34), htons(server.port()));
  uint32_t methods = 3;
  EXPECT_TRUE(control(35, &methods) && get<uint32_t>(34) == 3);
  EXPECT_EQ(get<XDR*>(30), get_xdr_from_chandle(client_));
  EXPECT_EQ(get_option(SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(get_option(IPPROTO_TCP, TCP_NODELAY), 1) << "from the beginning";
  for (int on : {0, 1}) {
    void* pointer = on != 0 ? client_ : nullptr;
    EXPECT_TRUE(control(28, pointer) && control(27, pointer) && control(32, pointer));
    EXPECT_EQ(get_option(IPPROTO_TCP, TCP_NODELAY), on);
    EXPECT_TRUE(get<int32_t>(29) == on && get<int32_t>(33) == on);
  }
  for (auto [set, option] : {std::pair{21U, SO_RCVBUF}, {23U, SO_SNDBUF}}) {
    EXPECT_TRUE(control(set, reinterpret_cast<void*>(30000)));
    EXPECT_EQ(get_option(SOL_SOCKET, option), 60000) << "the system doubles it";
    EXPECT_EQ(get<int>(set - 1), 60000);
  }
}

TEST_F(TcpTest, TheOneCallOption) {
  static std::string requests;
  requests.clear();
  RpcServer server(always(kAnswer));
  connect(server);
  XDR* stream = get_xdr_from_chandle(client_);
  const xdr_ops* ops = stream->ops;
  xdr_ops told = *ops;
  told.control = [](XDR*, uint32_t request, void*) {
    requests += std::to_string(request);
    return requests.size() != 3;  // no to the second call
  };
  stream->ops = &told;
  // Armed once it is enabled, for one call.
  for (auto [request, so_far] : {std::pair{31U, ""}, {32U, ""}, {31U, "01"}, {31U, "010"}}) {
    EXPECT_TRUE(control(request, client_) && control(31, nullptr));
    EXPECT_TRUE(call() == RPC_SUCCESS && call() == RPC_SUCCESS);
    EXPECT_EQ(requests, so_far);
  }
  stream->ops = ops;
}

TEST_F(TcpTest, FailuresToConnect) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  RpcServer server(stall);
  // So many connects are refused with an error.
  const std::tuple<int, int, uint16_t, int> cases[] = {{0, 0, kNobody, ECONNREFUSED},
                                                       {ENETUNREACH, 1, server.port(), ENETUNREACH},
                                                       {EINTR, 1, kNobody, ECONNREFUSED},
                                                       {EINTR, 1, server.port(), 0},
                                                       {EADDRINUSE, 5, server.port(), 0}};
  for (const auto& [refused, times, port, error] : cases) {
    fakes::now = svc_time() + 1;
    refuse(connects, refused, times);
    EXPECT_EQ(create(kTcp, port) != nullptr, error == 0) << refused;
    if (error != 0) expect_not_created(RPC_SYSTEMERROR, error);
    EXPECT_EQ(svc_time(), fakes::now) << "a new service time has begun";
  }
  fakes::now = 0;
  // An address in use is tried twice for each port; those of a process stay configured.
  auto tries_with_one_port = [&] {
    refuse(connects, EADDRINUSE, 100);
    (void)rpcport_add_range(42000, 42000, kPortConnection);
    create(kTcp, kNobody);
    return 100 - connects.left;
  };
  EXPECT_EXIT(_exit(tries_with_one_port()), testing::ExitedWithCode(2), "");
}

// The last of all exit functions finds the blocks of the process gone, and still makes and
// uses clients.
TEST_F(TcpTest, WhatTheEnvironmentSetsHoldsToTheVeryEnd) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // Bit 0: it blocks with a limit; 1: without; 2: without while input is watched; 3: two buffers
  // are transferred at once; 4: those of the socket keep their size.
  static auto found = [this] {
    if (get_rpc_p_varp() != nullptr) return -1;
    rpc_install_auth_methods(nullptr);
    RpcServer server(echo);
    connect(server);
    const int before = get_option(SOL_SOCKET, SO_SNDBUF);
    const bool set = control(CLSET_SEND_SIZE, reinterpret_cast<void*>(4321));
    int bits = set && get_option(SOL_SOCKET, SO_SNDBUF) == before ? 16 : 0;
    for (int bit = 0; bit < 3; ++bit) {
      if (bit == 1) control(CLSET_TIMEOUT, nullptr);
      if (bit == 2) control(CLSET_WATCH_INPUT, client_);
      if (comes_back(100000) && (fcntl(socket_, F_GETFL) & O_NONBLOCK) == 0) bits |= 1 << bit;
    }
    return bits + 4 * (writes.most + reads.most) - 8;
  };
  const std::string directory = testing::TempDir();
  for (const char* name : {"nowritev", "noreadv"}) write_file(directory + name, "");
  const std::tuple<const char*, std::string, int, const char*> cases[] = {
      {"KIV_BLOCKING_RPC", "must", 15, "Auth methods not set, using default\n"},
      {"KIV_BLOCKING_RPC", "no", 14, ""},
      {"KIV_BLOCKING_RPC", "fALSE", 10, ""},
      {"KIV_DEBUG_DIR", directory, 6, ""},
      {"KIV_SOCK_BUF_UNSET", "no", 14, ""},
      {"KIV_SOCK_BUF_UNSET", "y", 30, ""},
      {"KIV_SOCK_BUF_UNSET", "Yes", 30,
       "The environment variable KIV_SOCK_BUF_UNSET is set to 'Yes'"}};
  for (const auto& [name, value, bits, told] : cases) {
    auto end = [variable = name, set = value] {
      setenv(variable, set.c_str(), 1);
      Debug = 1;
      atexit([] { _exit(found()); });
      get_rpc_p_varp();
      exit(0);
    };
    EXPECT_EXIT(end(), testing::ExitedWithCode(bits), told) << value;
  }
  for (const char* name : {"nowritev", "noreadv"}) unlink((directory + name).c_str());
}

}  // namespace

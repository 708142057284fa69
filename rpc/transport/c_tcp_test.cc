#include "rpc/transport/c_tcp.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "rpc/xdr/x_rec.h"
#include "tests/fakes.h"
#include "tests/rpc_client.h"

namespace {

using namespace fakes;
using namespace machine;

constexpr timeval kShort = {0, 50000};
constexpr timeval kNone = {0, 0};
constexpr timeval kStep = {0, 1000};
constexpr uint32_t kMuch = 12 << 20;  // bytes that no socket keeps

constexpr char kAnswer[] = "ID OK 00000000 0000002A";
constexpr char kLate[] = "ID OK 00000000 00000007";  // to a call that gave up

// Reads nothing until the client is gone.
void stall(RpcServer& peer) {
  pollfd gone = {peer.socket(), POLLRDHUP, 0};
  poll(&gone, 1, -1);
}

// A wait function that cancels when it was called `allowed` times already.
struct Watcher {
  int allowed = INT_MAX;
  int calls = 0;
  timeval elapsed{};  // at the last call

  static int32_t function(const timeval* elapsed, void* argument, const timeval* now) {
    EXPECT_GT(now->tv_sec, 0);
    auto* self = static_cast<Watcher*>(argument);
    self->elapsed = *elapsed;
    return ++self->calls > self->allowed ? 1 : 0;
  }
};

class TcpTest : public ClientTest {
 protected:
  void serve(const RpcServer::Conversation& conversation, uint32_t size = 100) {
    ClientTest::serve(kTcp, conversation, size);
  }

  // Sends kMuch bytes of arguments.
  clnt_stat send_much() {
    auto filter = [](XDR* xdrs, void* bytes) { return __brix_xdr_opaque(xdrs, bytes, kMuch); };
    static char much[kMuch];
    return call_with(filter, much);
  }

  void watch(timeval step, timeval limit, int allowed = INT_MAX) {
    watcher_ = {allowed};
    rpc_wait waiting = {step, Watcher::function, &watcher_};
    EXPECT_TRUE(control(CLSET_TIMEOUT, &limit));
    EXPECT_TRUE(control(CLSET_WAIT_FUNCTION, &waiting));
  }

  Watcher watcher_;
};

TEST_F(TcpTest, WhatAnswersComeTo) {
  const struct {
    const char *name, *answer;
    bool closes;
    clnt_stat status;
  } rows[] = {
      {"a part of results", "8000001C ID OK 00000000 0000", true, RPC_CANTRECV},
      {"late results", "8000001C ID OK 00000000 0000", false, RPC_TIMEDOUT},
      {"too few results", "80000018 ID OK 00000000", false, RPC_CANTDECODERES},
      {"too large a fragment", "7F7F7F7F", false, RPC_CANTRECV},
      {"too large a second one", "00000018 ID OK 00000000 7F7F7F7F", false, RPC_CANTRECV},
      {"a reply behind another, one cut off, an empty fragment and no reply",
       "8000001C 00000000 00000001 00000000 00000002 00000004 61626364 00000000"
       "80000018 00000000 00000001 00000000 00000000 00000008 12345678 00000000 80000004 00000000"
       "8000001C ID OK 00000000 0000002A",
       false, RPC_SUCCESS}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    serve([&row](RpcServer& peer) {
      peer.send(reply_to(*peer.read_request(), row.answer));
      if (!row.closes) stall(peer);
    });
    const long before = pieces_held();
    const timeval limit = row.status == RPC_TIMEDOUT ? kShort : kLong;
    expect(call(limit), row.status, row.status == RPC_CANTRECV ? ECONNRESET : 0);
    EXPECT_EQ(pieces_held(), before);
  }
}

TEST_F(TcpTest, EveryByteComesBackOnceAndInOrder) {
  std::string all;
  while (all.size() < 100000) all += std::to_string(all.size());
  const xdrproc_t filter = xdr_filter<__brix_xdr_wrapstring>;
  for (uint32_t buffers : {100U, 9000U}) {
    serve(
        [](RpcServer& peer) {
          while (auto request = peer.read_request()) {
            peer.send(fragment(reply_to(*request, "ID OK 00000000") + request->substr(40)));
          }
        },
        buffers);
    for (uint32_t size : {0U, 7999U, 8003U, 100000U}) {
      std::string text = all.substr(0, size);
      char *sent = text.data(), *got = nullptr;
      EXPECT_EQ(client_->ops->call(client_, 7, filter, &sent, filter, &got, kLong), RPC_SUCCESS);
      EXPECT_TRUE(got == text) << size;
      free(got);
    }
  }
}

// Some of its bytes come within the limit; the others, beginning with zero bytes, while the next
// call is written.
TEST_F(TcpTest, ALateReplyIsDropped) {
  for (size_t in_time : {2U, 12U}) {
    SCOPED_TRACE(in_time);
    serve([in_time](RpcServer& peer) {
      const std::string late = fragment(reply_to(*peer.read_request(), kLate));
      peer.send(late.substr(0, in_time));
      pollfd next = {peer.socket(), POLLIN, 0};
      poll(&next, 1, -1);
      peer.send(late.substr(in_time));
      always(kAnswer)(peer);
    });
    control(CLSET_WATCH_INPUT, client_);
    expect(call(kShort), RPC_TIMEDOUT);
    EXPECT_EQ(send_much(), RPC_SUCCESS);
    EXPECT_EQ(result_, 42);
  }
}

TEST_F(TcpTest, ACallIsAnsweredAfterOneThatWasNot) {
  serve([](RpcServer& peer) {
    (void)peer.read_request();
    always(kAnswer)(peer);
  });
  expect(call(kShort), RPC_TIMEDOUT);
  expect(call(), RPC_SUCCESS);
}

TEST_F(TcpTest, TheLastStepEndsWithTheLimit) {
  serve(stall);
  for (timeval step : {timeval{0, 35000}, kNone}) {  // with none, the limit is one step
    watch(step, kShort);
    expect(call(), RPC_TIMEDOUT);
    EXPECT_TRUE(equal(watcher_.elapsed, kShort));
    EXPECT_EQ(watcher_.calls, 3 + (timerisset(&step) ? 2 : 1));
  }
}

// Its steps are longer than all waits.
TEST_F(TcpTest, TheWaitFunctionIsAskedAtBothEndsOfEveryTransfer) {
  serve(always(kAnswer));
  for (int allowed = 0; allowed <= 4; ++allowed) {
    SCOPED_TRACE(allowed);
    watch(kLong, kLong, allowed);
    expect(call(), allowed < 4 ? RPC_CANCELLED : RPC_SUCCESS);
    EXPECT_EQ(watcher_.calls, std::min(allowed + 1, 4));
    control(CLSET_WAIT_FUNCTION, nullptr);
    ASSERT_EQ(call(), RPC_SUCCESS) << "usable after cancelling";
  }
}

// As a part of a record has left, nothing more can be sent.
TEST_F(TcpTest, AFailedWriteEndsTheConnection) {
  const struct {
    timeval limit;
    int allowed;  // calls of the wait function
    clnt_stat status;
  } rows[] = {{kShort, INT_MAX, RPC_TIMEDOUT}, {kLong, 8, RPC_CANCELLED}};
  for (const auto& row : rows) {
    serve(stall);
    watch(kStep, row.limit, row.allowed);
    expect(send_much(), row.status);
    char byte = 0;
    EXPECT_EQ(recv(socket_, &byte, 1, MSG_DONTWAIT), 0) << "the connection is shut down";
    expect(call(), RPC_CANTSEND, EPIPE);
  }
}

TEST_F(TcpTest, OneWayCallsLeaveWithTheNextCall) {
  serve(always(kAnswer), 4000);
  refuse(writes, EIO);
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(client_->ops->call(client_, 7, nullptr, nullptr, nullptr, nullptr, kNone), 0);
  }
  EXPECT_EQ(writes.left.exchange(0), 1) << "nothing was written";
  EXPECT_EQ(call(), RPC_SUCCESS);
  EXPECT_EQ(server_->requests().size(), 3U);
}

TEST_F(TcpTest, ANegativeLimitIsZero) {
  serve(stall);
  timeval negative = {-1, 5};
  control(CLSET_TIMEOUT, &negative);
  expect(call(), RPC_TIMEDOUT);
}

TEST_F(TcpTest, WithoutALimitAWaitTakesADay) {
  serve(stall);
  EXPECT_TRUE(control(CLSET_TIMEOUT, nullptr));
  EXPECT_EQ(get<rpc_wait>(CLGET_WAIT_FUNCTION).step.tv_sec, 86400);
  EXPECT_EQ(get<int32_t>(CLGET_WAIT_STATE), kWaitNoLimit);
  watch(kStep, kShort);
  EXPECT_TRUE(control(CLSET_WAIT_FUNCTION, nullptr));
  EXPECT_TRUE(equal(get<rpc_wait>(CLGET_WAIT_FUNCTION).step, kShort)) << "a step is the limit";
}

TEST_F(TcpTest, FailuresToConnect) {
  serve(stall);
  for (int passing : {EINTR, EADDRINUSE}) {
    refuse(connects, passing);
    EXPECT_NE(create(kTcp, server_->port()), nullptr) << passing;
  }
  create(kTcp, kNobody);
  expect_not_created(RPC_SYSTEMERROR, ECONNREFUSED);
}

TEST_F(TcpTest, DestroyGivesAGivenSocketItsModeBack) {
  serve(always(kAnswer));
  const int given = dup(socket_);
  create(kTcp, server_->port(), given);
  expect(call(), RPC_SUCCESS);
  EXPECT_NE(fcntl(given, F_GETFL) & O_NONBLOCK, 0) << "as its limit wants it";
  destroy();
  EXPECT_EQ(fcntl(given, F_GETFL) & O_NONBLOCK, 0);
  close(given);
}

TEST_F(TcpTest, TheEnvironmentSaysWhenTheSocketBlocks) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto write_situations = [this](const char* variable, const char* value) {
    setenv(variable, value, 1);
    serve(always(kAnswer));
    auto write_if_blocking = [this](const char* situation) {
      EXPECT_EQ(call(), RPC_SUCCESS);
      if ((fcntl(socket_, F_GETFL) & O_NONBLOCK) == 0) fputs(situation, stderr);
    };
    write_if_blocking("limited ");
    control(CLSET_TIMEOUT, nullptr);
    write_if_blocking("unlimited ");
    control(CLSET_WATCH_INPUT, client_);
    write_if_blocking("watched ");
    control(CLSET_SEND_SIZE, reinterpret_cast<void*>(4321));
    fputs(get<int>(CLGET_SEND_SIZE) == 2 * 4321 ? "set" : "kept", stderr);
    _exit(0);
  };
  const struct {
    const char *variable, *value, *written;
  } rows[] = {{"KIV_BLOCKING_RPC", "must", "^limited unlimited watched set"},
              {"KIV_BLOCKING_RPC", "fALSE", "^unlimited set"},
              {"KIV_SOCK_BUF_UNSET", "Yes", "^unlimited watched kept"}};
  for (const auto& row : rows) {
    EXPECT_EXIT(write_situations(row.variable, row.value), testing::ExitedWithCode(0), row.written);
  }
}

}  // namespace

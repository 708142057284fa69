#include "rpc/transport/c_tcp.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <unistd.h>

#include "rpc/auth/auth_methods.h"
#include "rpc/transport/brsvport.h"
#include "tests/fakes.h"
#include "tests/rpc_client.h"
#include "tests/work.h"

namespace {

using namespace fakes;
using namespace machine;

constexpr timeval kShort = {0, 50000};
constexpr timeval kNone = {0, 0};
constexpr uint32_t kMuch = 17 << 20;  // bytes that no socket keeps and no fragment holds

const std::string kAnswer = kAccepted + "0000002A";
const std::string kCancelled = "Cancelled\n";
const std::string kReset = kCannotReceive + "Connection reset by peer\n";

// Reads nothing until the client is gone.
void stall(RpcServer& peer) {
  pollfd gone = {peer.socket(), POLLRDHUP, 0};
  poll(&gone, 1, -1);
}

class TcpTest : public ClientTest {
 protected:
  void serve(const RpcServer::Conversation& conversation, uint32_t size = 100) {
    ClientTest::serve(kTcp, conversation, size);
  }

  // Sends kMuch bytes of arguments.
  std::string send_much() {
    auto filter = [](XDR* xdrs, void* bytes) { return __brix_xdr_opaque(xdrs, bytes, kMuch); };
    static char much[kMuch];
    return call(filter, much, xdr_filter<__brix_xdr_int>, &result_);
  }

  // Sets a wait function that cancels when it was called `allowed` times already.
  void watch(timeval step, timeval limit, int allowed = INT_MAX) {
    calls_ = 0;
    allowed_ = allowed;
    auto function = [](const timeval* elapsed, void* argument, const timeval* now) {
      EXPECT_GT(now->tv_sec, 0);
      auto* self = static_cast<TcpTest*>(argument);
      self->elapsed_ = *elapsed;
      return ++self->calls_ > self->allowed_ ? 1 : 0;
    };
    rpc_wait waiting = {step, function, this};
    control(CLSET_WAIT_FUNCTION, &waiting);
    control(CLSET_TIMEOUT, &limit);
  }

  bool blocks() const { return (fcntl(socket_, F_GETFL) & O_NONBLOCK) == 0; }

  int calls_, allowed_;  // of the wait function
  timeval elapsed_;      // at its last call
};

TEST_F(TcpTest, WhatAnswersComeTo) {
  const struct {
    std::string header, body;  // before and behind the id of the reply
    bool closes;
    std::string outcome;
  } rows[] = {{"8000001C", kAccepted + "0000", true, kReset},           // a part of results
              {"80000018", kAccepted, false, "Can't decode result\n"},  // none
              {"81000001", "", false, kReset},                          // above 16 MiB
              {"00000018", kAccepted + "7F7F7F7F", false, kReset},      // too large a second one
              // a reply behind another, one cut off, an empty fragment and no reply
              {"8000001C 00000000 00000001 00000000 00000002 00000004 61626364 00000000"
               "80000018 00000000 00000001 00000000 00000000 00000008 12345678 00000000"
               "80000004 00000000 8000001C",
               kAnswer, false, kSuccess}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.header + row.body);
    serve([row](RpcServer& peer) {
      peer.send(from_hex(row.header) + reply(peer.read_request(), row.body));
      if (!row.closes) stall(peer);
    });
    const long before = pieces_held();
    EXPECT_EQ(call(), row.outcome);
    EXPECT_EQ(pieces_held(), before);
  }
}

// Some of its bytes come within the limit, the rest as the next call is written.
TEST_F(TcpTest, ALateReplyIsDropped) {
  for (size_t in_time : {1U, 12U, 31U}) {
    SCOPED_TRACE(in_time);
    serve([in_time](RpcServer& peer) {
      const std::string late = fragment(reply(peer.read_request(), kAccepted + "00000007"));
      peer.send(late.substr(0, in_time));
      pollfd next = {peer.socket(), POLLIN, 0};
      poll(&next, 1, -1);
      peer.send(late.substr(in_time));
      always(kAnswer)(peer);
    });
    control(CLSET_WATCH_INPUT, client_);
    EXPECT_EQ(call(kShort), kTimedOut);
    EXPECT_EQ(send_much(), kSuccess);
    EXPECT_EQ(result_, 42);
  }
}

// The server reads the call once its empty fragments were taken.
TEST_F(TcpTest, InputIsReadWhileACallIsWritten) {
  for (int passing : {EINTR, EAGAIN}) {
    serve([](RpcServer& peer) {
      const int smallest = 1;
      setsockopt(peer.socket(), SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest);
      peer.send(std::string(200000, '\0'));
      always(kAnswer)(peer);
    });
    control(CLSET_WATCH_INPUT, client_);
    refuse(reads, passing);
    EXPECT_EQ(send_much(), kSuccess);
  }
}

TEST_F(TcpTest, TheLastStepEndsWithTheLimit) {
  serve(stall);
  for (timeval step : {timeval{0, 35000}, timeval{-1, 0}}) {  // -1: the limit is one step
    watch(step, kShort);
    EXPECT_EQ(call(), kTimedOut);
    EXPECT_TRUE(equal(elapsed_, kShort));
    EXPECT_EQ(calls_, 3 + (step.tv_sec == 0 ? 2 : 1));
  }
}

// Its steps are longer than all waits.
TEST_F(TcpTest, WaitFunctionsAreAskedAtBothEnds) {
  serve(always(kAnswer));
  for (int allowed = 0; allowed <= 4; ++allowed) {
    SCOPED_TRACE(allowed);
    watch(kLong, kLong, allowed);
    EXPECT_EQ(call(), allowed < 4 ? kCancelled : kSuccess);
    EXPECT_EQ(calls_, std::min(allowed + 1, 4));
    control(CLSET_WAIT_FUNCTION, nullptr);
    ASSERT_EQ(call(), kSuccess);  // usable after cancelling
  }
}

// As a part of a record has left, nothing more can be sent.
TEST_F(TcpTest, AFailedWriteEndsTheConnection) {
  const struct {
    timeval limit;
    int allowed;  // calls of the wait function
    std::string outcome;
  } rows[] = {{kShort, INT_MAX, kTimedOut}, {kLong, 8, kCancelled}};
  for (const auto& row : rows) {
    serve(stall);
    watch({0, 1000}, row.limit, row.allowed);
    EXPECT_EQ(send_much(), row.outcome);
    char byte = 0;
    EXPECT_EQ(recv(socket_, &byte, 1, MSG_DONTWAIT), 0);  // the connection is shut down
    EXPECT_EQ(call(), kCannotSend + "Broken pipe\n");
  }
}

TEST_F(TcpTest, OneWayCallsLeaveWithTheNextCall) {
  serve(always(kAnswer), 4000);
  refuse(writes, EIO);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(call(nullptr, nullptr, nullptr, nullptr, kNone), kSuccess);
  EXPECT_EQ(call(kNone), kCannotSend + "Input/output error\n");  // this one leaves at once
  EXPECT_EQ(call(), kSuccess);
  EXPECT_EQ(server_->requests().size(), 3U);
  EXPECT_EQ(call(kNone), kTimedOut);  // it wants results, so it is not one-way
}

TEST_F(TcpTest, AnArmedStreamIsToldOfTheNextCall) {
  serve(always(kAnswer), 4000);
  static std::vector<uint32_t> told;
  told.clear();
  XDR* stream = get_xdr_from_chandle(client_);
  xdr_ops ops = *stream->ops;
  ops.control = [](XDR*, uint32_t request, void*) {
    told.push_back(request);
    return true;
  };
  stream->ops = &ops;
  for (int enabled : {0, 1}) {
    control(CLSET_ONE_CALL_ENABLED, enabled != 0 ? client_ : nullptr);
    EXPECT_EQ(get<int32_t>(CLGET_ONE_CALL_ENABLED), enabled);
    control(CLSET_ONE_CALL, client_);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(call(), kSuccess);
  }
  EXPECT_THAT(told, testing::ElementsAre(0, 1));  // that it begins and that it ends
  destroy();
}

TEST_F(TcpTest, TheProcessMayHaveATableOfMethods) {
  rpc_install_auth_methods([](const sockaddr_in*, uint32_t* methods) {
    *methods = 5;
    return true;
  });
  serve(stall);
  EXPECT_EQ(get<uint32_t>(CLGET_AUTH_METHODS), 5U);
  rpc_install_auth_methods([](const sockaddr_in*, uint32_t*) { return false; });
  EXPECT_EQ(printed(1, [this] { create(kTcp, server_->port()); }),
            "kivtrap: Error on getting auth methods, using default\n");
  EXPECT_EQ(get<uint32_t>(CLGET_AUTH_METHODS), kAuthMethodsDefault);
  rpc_install_auth_methods(nullptr);
}

TEST_F(TcpTest, WithoutALimitAWaitTakesADay) {
  serve(always(kAnswer));
  watch({50000, 0}, kShort);
  control(CLSET_TIMEOUT, nullptr);
  refuse(waits, 0, 3);
  EXPECT_EQ(call(), kSuccess);
  control(CLSET_WAIT_FUNCTION, nullptr);
  EXPECT_TRUE(equal(get<rpc_wait>(CLGET_WAIT_FUNCTION).step, {86400, 0}));
  EXPECT_EQ(get<int32_t>(CLGET_WAIT_STATE), 2);
  for (int32_t state : {-1, 0, 3}) EXPECT_EQ(control(CLSET_WAIT_STATE, &state), state == 0);
}

TEST_F(TcpTest, ConnectingGoesOnAfterASignal) {
  refuse(connects, EINTR);
  refuse(waits, EINTR);
  serve(stall);
}

TEST_F(TcpTest, AddressesInUseAreTriedAgain) {
  refuse(connects, EADDRINUSE);  // also without ranges of ports
  EXPECT_EQ(create(kTcp, kNobody), kSystemError + "Connection refused\n");
  auto connect_in_vain = [this] {
    (void)rpcport_add_range(40001, 40001, kPortConnection);
    refuse(connects, EADDRINUSE, 100);
    fputs(create(kTcp, kNobody).c_str(), stderr);
    _exit(100 - connects.left);
  };
  EXPECT_EXIT(connect_in_vain(), testing::ExitedWithCode(2), "^Remote.*Address already in use");
}

TEST_F(TcpTest, DestroyRestoresTheSocketsMode) {
  serve(always(kAnswer));
  const int given = dup(socket_);
  create(kTcp, server_->port(), given);
  EXPECT_EQ(call(), kSuccess);
  EXPECT_FALSE(blocks());  // as its limit wants it
  destroy();
  EXPECT_TRUE(blocks());
  close(given);
}

TEST_F(TcpTest, SmallRecordsAreNotDelayed) {
  serve(stall);
  auto nodelay = [this] {
    int on = -1;
    socklen_t size = sizeof on;
    getsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, &size);
    return on;
  };
  EXPECT_EQ(nodelay(), 1);
  control(CLSET_NODELAY, nullptr);
  EXPECT_EQ(nodelay(), 0);
}

TEST_F(TcpTest, TheEnvironmentLetsTheSocketBlock) {
  auto write_situations = [this](const char* variable, const char* value) {
    setenv(variable, value, 1);
    serve(always(kAnswer));
    auto write_if_blocking = [this](const char* situation) {
      EXPECT_EQ(call(), kSuccess);
      if (blocks()) fputs(situation, stderr);
    };
    write_if_blocking("limited ");
    control(CLSET_TIMEOUT, nullptr);
    write_if_blocking("unlimited ");
    control(CLSET_WATCH_INPUT, client_);
    write_if_blocking("watched ");
    EXPECT_TRUE(control(CLSET_SEND_SIZE, reinterpret_cast<void*>(4321)));
    fputs(get<int>(CLGET_SEND_SIZE) == 2 * 4321 ? "set" : "kept", stderr);
    _exit(HasFailure() ? 1 : 0);
  };
  const struct {
    const char *variable, *value, *written;
  } rows[] = {{"KIV_BLOCKING_RPC", "must", "^limited unlimited watched set"},
              {"KIV_BLOCKING_RPC", "fALSE", "^unlimited set"},
              {"KIV_SOCK_BUF_UNSET", "Yes", "^unlimited watched kept"}};
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const auto& row : rows) {
    EXPECT_EXIT(write_situations(row.variable, row.value), testing::ExitedWithCode(0), row.written);
  }
}

}  // namespace

#include "rpc/transport/c_tcp.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "liblocal/base/svc_time.h"
#include "rpc/auth/auth_methods.h"
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

// Sends the arguments of every call back.
void echo(RpcServer& peer) {
  while (auto request = peer.read_request()) {
    peer.send(fragment(reply_to(*request, "ID OK 00000000") + request->substr(40)));
  }
}

// A wait function that cancels when it was called `allowed` times already.
struct Watcher {
  int allowed = INT_MAX;
  std::atomic<int> calls = 0;
  int restarts = 0;   // how often the elapsed time began anew
  timeval elapsed{};  // at the last call

  static int32_t function(const timeval* elapsed, void* argument, const timeval* now) {
    EXPECT_GT(now->tv_sec, 0);
    auto* self = static_cast<Watcher*>(argument);
    if (timercmp(elapsed, &self->elapsed, <)) ++self->restarts;
    self->elapsed = *elapsed;
    return ++self->calls > self->allowed ? 1 : 0;
  }
};

class TcpTest : public ClientTest {
 protected:
  void serve(const RpcServer::Conversation& conversation, uint32_t size = 100) {
    ClientTest::serve(kTcp, conversation, size);
  }

  // Sends kMuch bytes of arguments: at once, or in pieces that wait for the record's end.
  clnt_stat send_much(uint32_t piece = kMuch) {
    auto filter = [](XDR* xdrs, void* size) {
      static char much[kMuch];
      const uint32_t each = *static_cast<uint32_t*>(size);
      uint32_t left = kMuch;
      while (left >= each && __brix_xdr_opaque(xdrs, much, each)) left -= each;
      return left < each;
    };
    return call_with(filter, &piece);
  }

  // Whether `text` comes back from a server that echoes.
  bool comes_back(std::string text) {
    char *sent = text.data(), *got = nullptr;
    const xdrproc_t filter = xdr_filter<__brix_xdr_wrapstring>;
    EXPECT_EQ(client_->ops->call(client_, 7, filter, &sent, filter, &got, kLong), RPC_SUCCESS);
    const bool same = got == text;
    free(got);
    return same;
  }

  void watch(timeval step = kStep, timeval limit = kLong, int allowed = INT_MAX) {
    watcher_.emplace().allowed = allowed;
    rpc_wait waiting = {step, Watcher::function, &*watcher_};
    EXPECT_TRUE(control(CLSET_TIMEOUT, &limit));
    EXPECT_TRUE(control(CLSET_WAIT_FUNCTION, &waiting));
  }

  // Returns when the client has waited for some steps more.
  void await_steps() const {
    const int before = watcher_->calls;
    for (int i = 0; i < 1000 && watcher_->calls < before + 4; ++i) usleep(1000);
  }

  timeval step() { return get<rpc_wait>(CLGET_WAIT_FUNCTION).step; }

  std::optional<Watcher> watcher_;
};

TEST_F(TcpTest, WhatAnswersComeTo) {
  const struct {
    const char *name, *answer;
    bool closes;
    clnt_stat status;
  } rows[] = {
      {"a part of a reply", "8000001C ID 00", true, RPC_CANTRECV},
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
  while (all.size() < kXdrRecMaxFragment) all += std::to_string(all.size());
  for (uint32_t buffers : {100U, 9000U}) {
    serve(echo, buffers);
    for (uint32_t size : {0U, 7999U, 8003U, kXdrRecMaxFragment - 100}) {
      EXPECT_TRUE(comes_back(all.substr(0, size))) << size;
    }
  }
  EXPECT_EQ(writes.most, 2) << "buffers at once";
  EXPECT_EQ(reads.most, 2);
}

// Some of its bytes come within the limit, the others during the next call.
TEST_F(TcpTest, ALateReplyIsDropped) {
  for (const auto& [in_time, limit] : {std::pair(0U, kNone), {2U, kShort}, {9U, kShort}}) {
    SCOPED_TRACE(in_time);
    serve([bytes = in_time](RpcServer& peer) {
      const std::string late = fragment(reply_to(*peer.read_request(), kLate));
      peer.send(late.substr(0, bytes));
      const auto request = *peer.read_request();
      peer.send(late.substr(bytes) + fragment(reply_to(request, kAnswer)));
    });
    expect(call(limit), RPC_TIMEDOUT);
    expect(call(), RPC_SUCCESS);
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

// What is not the reply, or only a part of it, takes no time from the reading after it.
TEST_F(TcpTest, EveryReadingHasItsOwnLimit) {
  serve([this](RpcServer& peer) {
    const std::string reply = fragment(reply_to(*peer.read_request(), kAnswer));
    for (const std::string& piece : {fragment("another reply---"), std::string(4, '\0'),
                                     reply.substr(0, 2), reply.substr(2, 6), reply.substr(8)}) {
      await_steps();
      peer.send(piece);
    }
  });
  watch({0, 5000});
  EXPECT_EQ(call(), RPC_SUCCESS);
  EXPECT_EQ(watcher_->restarts, 4) << "after each reading but the last";
}

TEST_F(TcpTest, TheLastStepEndsWithTheLimit) {
  serve(stall);
  watch({0, 35000}, kShort);
  expect(call(), RPC_TIMEDOUT);
  EXPECT_TRUE(equal(watcher_->elapsed, kShort));
}

// Its steps are longer than all waits.
TEST_F(TcpTest, TheWaitFunctionIsAskedAtBothEndsOfEveryTransfer) {
  serve(always(kAnswer));
  for (int allowed = 0; allowed <= 4; ++allowed) {
    SCOPED_TRACE(allowed);
    watch(kLong, kLong, allowed);
    expect(call(), allowed < 4 ? RPC_CANCELLED : RPC_SUCCESS);
    EXPECT_EQ(watcher_->calls, std::min(allowed + 1, 4));
    control(CLSET_WAIT_FUNCTION, nullptr);
    ASSERT_EQ(call(), RPC_SUCCESS) << "usable after cancelling";
  }
}

// As a part of a record has left, nothing more can be sent.
TEST_F(TcpTest, AFailedWriteEndsTheConnection) {
  const struct {
    const char* name;
    uint32_t buffer, piece;
    timeval limit;
    int allowed;  // calls of the wait function
    clnt_stat status;
    int32_t detail;
  } rows[] = {{"late within arguments", 100, kMuch, kShort, INT_MAX, RPC_TIMEDOUT, 0},
              {"late at their end", kMuch + 1000, 4000, kShort, INT_MAX, RPC_CANTSEND, ETIMEDOUT},
              {"cancelled in a wait", 100, kMuch, kLong, 8, RPC_CANCELLED, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    serve(stall, row.buffer);
    watch(kStep, row.limit, row.allowed);
    expect(send_much(row.piece), row.status, row.detail);
    char byte = 0;
    EXPECT_EQ(recv(socket_, &byte, 1, MSG_DONTWAIT), 0) << "the connection is shut down";
    expect(call(), RPC_CANTSEND, EPIPE);
  }
}

TEST_F(TcpTest, UrgentDataEndsAWait) {
  serve([](RpcServer& peer) {
    ::send(peer.socket(), "!", 1, MSG_OOB);
    stall(peer);
  });
  expect(send_much(), RPC_CANTSEND, ECONNRESET);
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

// The peer takes two portions and goes.
TEST_F(TcpTest, APartialWriteBeginsItsLimitAnew) {
  serve([this](RpcServer& peer) {
    for (uint32_t size : {1U, 1U << 20, 1U << 20}) {
      peer.read_bytes(size);
      await_steps();
    }
  });
  watch();
  const clnt_stat status = send_much();  // the peer ends it, while it is written or read from
  EXPECT_TRUE(status == RPC_CANTSEND || status == RPC_CANTRECV) << status;
  EXPECT_GT(watcher_->restarts, 0);
}

// The peer sends more than the sockets keep before it reads.
TEST_F(TcpTest, EmptyFragmentsAreDroppedWhileWriting) {
  serve([](RpcServer& peer) {
    const int small = 1 << 16;
    setsockopt(peer.socket(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    peer.send(std::string(1 << 19, '\0'));
    always(kAnswer)(peer);
  });
  control(CLSET_WATCH_INPUT, client_);
  refuse(reads, EINTR, 100);
  EXPECT_EQ(send_much(), RPC_SUCCESS);
}

TEST_F(TcpTest, ZeroBytesWithinARecordAreKeptWhileWriting) {
  serve([](RpcServer& peer) {
    const std::string late = fragment(reply_to(*peer.read_request(), kLate));
    peer.send(late.substr(0, 12));  // what follows begins with zero bytes
    pollfd next = {peer.socket(), POLLIN, 0};
    poll(&next, 1, -1);
    for (char byte : late.substr(12)) {
      peer.send({byte});
      usleep(2000);  // so the client reads it while it waits for room
    }
    always(kAnswer)(peer);
  });
  control(CLSET_WATCH_INPUT, client_);
  expect(call(kShort), RPC_TIMEDOUT);
  EXPECT_EQ(send_much(), RPC_SUCCESS);
  EXPECT_EQ(result_, 42);
}

TEST_F(TcpTest, LimitsStepsAndTheirState) {
  serve(stall);
  EXPECT_TRUE(control(CLSET_TIMEOUT, nullptr));
  EXPECT_EQ(get<timeval>(CLGET_TIMEOUT).tv_sec, 86400);
  EXPECT_EQ(step().tv_sec, 86400) << "without a wait function the step is the limit";
  EXPECT_EQ(get<int32_t>(CLGET_WAIT_STATE), kWaitNoLimit);
  watch(kStep, kShort);
  EXPECT_TRUE(equal(step(), kStep));
  EXPECT_EQ(get<int32_t>(CLGET_WAIT_STATE), kWaitSet);
  EXPECT_TRUE(control(CLSET_WAIT_FUNCTION, nullptr));
  EXPECT_TRUE(equal(step(), kShort));
}

TEST_F(TcpTest, AllowedMethodsComeFromTheServersAddress) {
  rpc_install_auth_methods([](const sockaddr_in* address, uint32_t* methods) {
    *methods = address->sin_port;
    return true;
  });
  serve(stall);
  rpc_install_auth_methods(nullptr);
  EXPECT_EQ(get<uint32_t>(CLGET_AUTH_METHODS), htons(server_->port()));
}

TEST_F(TcpTest, FailuresToConnect) {
  serve(stall);
  for (int passing : {EINTR, EADDRINUSE}) {
    refuse(connects, passing);
    EXPECT_NE(create(kTcp, server_->port()), nullptr) << passing;
  }
  refuse(connects, EINTR);
  create(kTcp, kNobody);
  expect_not_created(RPC_SYSTEMERROR, ECONNREFUSED);
}

TEST_F(TcpTest, CreationBeginsANewServiceTime) {
  fakes::now = svc_time() + 1;
  create(kTcp, kNobody);
  EXPECT_EQ(svc_time(), fakes::now);
  fakes::now = 0;
}

TEST_F(TcpTest, AnAddressInUseIsTriedTwiceForEachPort) {
  refuse(connects, EADDRINUSE, INT_MAX);
  create(kTcp, kNobody);
  EXPECT_EQ(INT_MAX - connects.left.exchange(0), 2 * 65535);
  expect_not_created(RPC_SYSTEMERROR, EADDRINUSE);
}

// Clients of the last exit function find the blocks of the process gone.
TEST_F(TcpTest, WhatTheEnvironmentSetsHoldsToTheVeryEnd) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  static auto write_what_a_client_does = [this] {
    serve(get_rpc_p_varp() == nullptr ? always(kAnswer) : stall);
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
  };
  auto end = [](const char* name, const char* value) {
    setenv(name, value, 1);
    atexit([] { write_what_a_client_does(); });
    get_rpc_p_varp();
    exit(0);
  };
  for (const auto& [name, value, does] :
       {std::tuple("KIV_BLOCKING_RPC", "must", "^limited unlimited watched set"),
        {"KIV_BLOCKING_RPC", "fALSE", "^unlimited set"},
        {"KIV_SOCK_BUF_UNSET", "Yes", "^unlimited watched kept"}}) {
    EXPECT_EXIT(end(name, value), testing::ExitedWithCode(0), does);
  }
}

}  // namespace

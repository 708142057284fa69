#include "rpc/c_tcp.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <random>
#include <semaphore>
#include <thread>

#include "liblocal/liblvars.h"
#include "rpc/a_unix.h"
#include "rpc/auth.h"
#include "rpc/auth_methods.h"
#include "rpc/c_gen.h"
#include "rpc/pmap.h"
#include "rpc/rpcvarp.h"
#include "rpc/x_rec.h"
#include "tests/failing_malloc.h"
#include "tests/rpc_server.h"
#include "tests/tcp_peer.h"

namespace {

using lab::fragment;
using lab::TcpConnection;
using lab::TcpPeer;

constexpr timeval kLong = {20, 0};  // nothing waits so long
constexpr timeval kShort = {0, 50000};
constexpr timeval kNone = {0, 0};

sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

std::string answer_to(const std::string& request, const std::string& hex = "0000002A") {
  return fragment(lab::success_to(request, hex));
}

// Answers every call with 42.
void answer_all(TcpConnection& connection) {
  while (auto request = connection.read_record()) connection.send(answer_to(*request));
}

// Takes all that comes and answers nothing.
void take_all(TcpConnection& connection) {
  while (connection.read_record()) {
  }
}

// Reads nothing until the client is gone.
void stall(TcpConnection& connection) {
  pollfd gone = {connection.socket(), POLLRDHUP, 0};
  poll(&gone, 1, -1);
}

class TcpTest : public LabTest {
 protected:
  void TearDown() override { destroy(); }

  void destroy() {
    if (client_ != nullptr) client_->ops->destroy(client_);
    client_ = nullptr;
  }

  CLIENT* connect(const TcpPeer& peer, int socket = -1, uint32_t size = 0) {
    destroy();
    sockaddr_in address = loopback(peer.port());
    socket_ = socket;
    client_ = __brix_clnttcp_create(&address, 5, 6, &socket_, size, size);
    EXPECT_NE(client_, nullptr);
    return client_;
  }

  // Calls procedure 7 with the argument 8.
  clnt_stat call(timeval limit = kLong) {
    int32_t argument = 8;
    return client_->ops->call(client_, 7, xdr_filter<__brix_xdr_int>, &argument,
                              xdr_filter<__brix_xdr_int>, &result_, limit);
  }

  // Sends `bytes` bytes of arguments.
  clnt_stat send_much(uint32_t bytes, timeval limit) {
    std::string much(bytes, 'm');
    auto* data = reinterpret_cast<uint8_t*>(much.data());
    Bytes arguments = {data, bytes};
    return client_->ops->call(client_, 7, xdr_filter<bytes_filter>, &arguments, __brix_xdr_void,
                              nullptr, limit);
  }

  struct Bytes {
    uint8_t* data;
    uint32_t size;
  };
  static bool bytes_filter(XDR* xdrs, Bytes* bytes) {
    return __brix_xdr_bytes(xdrs, &bytes->data, &bytes->size, UINT32_MAX);
  }

  bool control(uint32_t request, void* information) {
    return client_->ops->control(client_, request, information);
  }

  rpc_err error() const {
    rpc_err error{};
    client_->ops->geterr(client_, &error);
    return error;
  }

  void expect_error(clnt_stat status, int32_t detail) const {
    EXPECT_EQ(error().status, status);
    EXPECT_EQ(error().first_word, detail);
  }

  bool is_non_blocking() const { return (fcntl(socket_, F_GETFL) & O_NONBLOCK) != 0; }

  CLIENT* client_ = nullptr;
  int socket_ = -1;
  int32_t result_ = 0;
};

TEST_F(TcpTest, CallsCountTheirIdsDown) {
  std::vector<std::string> requests;
  {
    TcpPeer peer([&requests](TcpConnection& connection) {
      while (auto request = connection.read_record()) {
        requests.push_back(*request);
        connection.send(answer_to(*request));
      }
    });
    connect(peer);
    for (int i = 0; i < 300; ++i) ASSERT_EQ(call(), RPC_SUCCESS);
    destroy();
  }
  EXPECT_EQ(result_, 42);
  ASSERT_EQ(requests.size(), 300U);
  uint32_t id = 0;
  for (const std::string& request : requests) {
    EXPECT_EQ(to_hex(request.substr(4)),
              "000000000000000200000005000000060000000700000000000000000000000000000000"
              "00000008");
    uint32_t now = 0;  // the first byte is the lowest
    request.copy(reinterpret_cast<char*>(&now), sizeof now);
    if (&request != &requests.front()) {
      EXPECT_EQ(now, id - 1);
    }
    id = now;
  }
}

TEST_F(TcpTest, RepliesInEveryShape) {
  using Script = std::function<void(TcpConnection&, const std::string&)>;
  const Script shapes[] = {
      [](auto& peer, auto& request) {  // byte by byte
        for (char byte : answer_to(request)) peer.send(std::string(1, byte));
      },
      [](auto& peer, auto& request) {  // a fragment for each byte
        std::string fragments;
        for (char byte : lab::success_to(request, "0000002A")) {
          fragments += fragment(std::string(1, byte), false);
        }
        peer.send(fragments + fragment(""));
      },
      [](auto& peer, auto& request) {  // behind what nobody asked for, in one segment
        std::string other = request;
        other[0] = static_cast<char>(other[0] + 1);
        const std::string body = from_hex("00000001000000000000000000000008") + "verifier";
        peer.send(answer_to(other) + fragment(other.substr(0, 4) + body) + fragment("") +
                  fragment("no reply") + answer_to(request) + answer_to(request));
      },
  };
  for (const Script& shape : shapes) {
    TcpPeer peer([&shape](TcpConnection& connection) {
      while (auto request = connection.read_record()) shape(connection, *request);
    });
    connect(peer);
    for (int i = 0; i < 2; ++i) {
      result_ = 0;
      ASSERT_EQ(call(), RPC_SUCCESS);
      EXPECT_EQ(result_, 42);
    }
    destroy();
  }
}

TEST_F(TcpTest, Failures) {
  const std::string mismatch =
      "00000001"
      "00000000"
      "00000000"
      "00000000"
      "00000002"
      "00000003"
      "00000004";
  const struct {
    const char* what;
    TcpPeer::Script script;
    clnt_stat status;
    int32_t detail;
  } cases[] = {
      {"closed", [](auto& peer) { (void)peer.read_record(); }, RPC_CANTRECV, ECONNRESET},
      {"closed within a reply",
       [](auto& peer) { peer.send(answer_to(*peer.read_record()).substr(0, 9)); }, RPC_CANTRECV,
       ECONNRESET},
      {"reset",
       [](auto& peer) {
         (void)peer.read_record();
         peer.reset_at_end();
       },
       RPC_CANTRECV, ECONNRESET},
      {"an exception",
       [](auto& peer) {
         (void)peer.read_record();
         ::send(peer.socket(), "!", 1, MSG_OOB);
         stall(peer);
       },
       RPC_CANTRECV, ECONNRESET},
      {"a fragment too large",
       [](auto& peer) {
         (void)peer.read_record();
         peer.send("\x7F\x7F\x7F\x7F");
         stall(peer);
       },
       RPC_CANTRECV, ECONNRESET},
      {"a reply of broken units",
       [](auto& peer) {
         (void)peer.read_record();
         peer.send(fragment("odd"));
         stall(peer);
       },
       RPC_CANTRECV, ECONNRESET},
      {"results cut off",
       [](auto& peer) {
         peer.send(answer_to(*peer.read_record(), "0000"));
         stall(peer);
       },
       RPC_CANTDECODERES, 0},
      {"program mismatch",
       [&mismatch](auto& peer) {
         peer.send(fragment(lab::reply_to(*peer.read_record(), mismatch)));
         stall(peer);
       },
       RPC_PROGVERSMISMATCH, 3},
      {"credential refused",
       [](auto& peer) {
         peer.send(
             fragment(lab::reply_to(*peer.read_record(), "00000001000000010000000100000002")));
         stall(peer);
       },
       RPC_AUTHERROR, 2},
  };
  for (const auto& [what, script, status, detail] : cases) {
    SCOPED_TRACE(what);
    TcpPeer peer(script);
    connect(peer);
    EXPECT_EQ(call(), status);
    expect_error(status, detail);
    destroy();
  }
}

// Echoes the bytes of a call, cut at random into fragments and segments.
TEST_F(TcpTest, EveryByteComesBackOnceAndInOrder) {
  std::mt19937 random(3);
  TcpPeer peer([&random](TcpConnection& connection) {
    while (auto request = connection.read_record()) {
      std::string reply = lab::success_to(*request, "") + request->substr(40);
      std::string wire;
      for (size_t at = 0; at < reply.size();) {
        size_t piece = 1 + random() % (1 + reply.size() / 5);
        wire += fragment(reply.substr(at, piece), at + piece >= reply.size());
        at += piece;
      }
      for (size_t at = 0; at < wire.size();) {
        size_t piece = 1 + random() % (1 + wire.size() / 5);
        connection.send(wire.substr(at, piece));
        at += piece;
      }
    }
  });
  for (uint32_t size : {0U, 1U, 3999U, 7999U, 8001U, 100003U, 3U << 20}) {
    connect(peer, -1, 100 + size % 9000);
    std::string data(size, '\0');
    for (char& byte : data) byte = static_cast<char>(random());
    Bytes arguments = {reinterpret_cast<uint8_t*>(data.data()), size};
    Bytes results = {nullptr, 0};
    ASSERT_EQ(client_->ops->call(client_, 7, xdr_filter<bytes_filter>, &arguments,
                                 xdr_filter<bytes_filter>, &results, kLong),
              RPC_SUCCESS);
    EXPECT_TRUE(std::string(results.data, results.data + results.size) == data) << size;
    EXPECT_TRUE(client_->ops->freeres(client_, xdr_filter<bytes_filter>, &results));
    destroy();
  }
}

TEST_F(TcpTest, EncodingAndAuthentication) {
  TcpPeer peer(answer_all);
  connect(peer);
  auto refuse = [](XDR*, void*) { return false; };
  EXPECT_EQ(client_->ops->call(client_, 7, refuse, nullptr, __brix_xdr_void, nullptr, kLong),
            RPC_CANTENCODEARGS);
  EXPECT_EQ(call(), RPC_SUCCESS) << "the reply to what was encoded is dropped";
  AUTH* none = client_->auth;
  auth_ops picky = *none->ops;
  picky.validate = [](AUTH*, const opaque_auth*) { return false; };
  AUTH strict = *none;
  strict.ops = &picky;
  client_->auth = &strict;
  EXPECT_EQ(call(), RPC_AUTHERROR);
  expect_error(RPC_AUTHERROR, kAuthInvalidServerVerifier);
  picky.needs_refresh = [](AUTH*, bool, CLIENT*) { return true; };
  EXPECT_EQ(call(), RPC_AUTHERROR) << "the status of before";
  client_->auth = nullptr;
  EXPECT_EQ(call(), RPC_AUTHERROR);
  expect_error(RPC_AUTHERROR, kAuthFailed);
  client_->auth = none;
  auto release = [](XDR* xdrs, void*) { return xdrs->operation == xdr_op::kFree; };
  EXPECT_TRUE(client_->ops->freeres(client_, release, nullptr));
  client_->ops->abort(client_);
  EXPECT_EQ(call(), RPC_SUCCESS);
}

TEST_F(TcpTest, ARefusedCredentialFallsBack) {
  TcpPeer peer([](TcpConnection& connection) {
    std::string request = *connection.read_record();
    connection.send(fragment(lab::reply_to(request, "00000001000000010000000100000002")));
    answer_all(connection);
  });
  connect(peer);
  client_->auth = __brix_authsys_create_default();
  EXPECT_EQ(call(), RPC_SUCCESS);
  EXPECT_EQ(client_->auth->credential.flavour, kAuthNone);
}

TEST_F(TcpTest, TimeLimits) {
  std::binary_semaphore go(0);
  TcpPeer peer([&go](TcpConnection& connection) {
    std::string late = answer_to(*connection.read_record(), "00000001");
    connection.send(late.substr(0, 9));
    go.acquire();
    connection.send(late.substr(9));
    answer_all(connection);
  });
  connect(peer);
  EXPECT_EQ(call(kShort), RPC_TIMEDOUT) << "within the reply";
  expect_error(RPC_TIMEDOUT, 0);
  go.release();
  EXPECT_EQ(call(), RPC_SUCCESS) << "the rest of it is dropped";
  EXPECT_EQ(result_, 42);
  EXPECT_EQ(call(kNone), RPC_TIMEDOUT) << "sent, and not waited for";
  EXPECT_EQ(call(), RPC_SUCCESS);
  timeval limit = kShort;
  ASSERT_TRUE(control(CLSET_TIMEOUT, &limit));
  EXPECT_EQ(call(kLong), RPC_SUCCESS);
  EXPECT_TRUE(is_non_blocking());
}

TEST_F(TcpTest, SignalsNeitherEndNorProlongAWait) {
  TcpPeer peer(take_all);
  connect(peer);
  struct sigaction action {};
  action.sa_handler = [](int) {};
  struct sigaction before {};
  sigaction(SIGUSR1, &action, &before);
  pthread_t self = pthread_self();
  std::jthread disturber([self](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      pthread_kill(self, SIGUSR1);
      usleep(1000);
    }
  });
  EXPECT_EQ(call({0, 30000}), RPC_TIMEDOUT);
  disturber.request_stop();
  disturber.join();
  sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(TcpTest, OneWayCallsLeaveWithTheNext) {
  std::atomic<int> records = 0;
  {
    TcpPeer peer([&records](TcpConnection& connection) {
      while (auto request = connection.read_record()) {
        ++records;
        if (request->size() > 40) connection.send(answer_to(*request));
      }
    });
    connect(peer);
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(client_->ops->call(client_, 7, nullptr, nullptr, nullptr, nullptr, kNone),
                RPC_SUCCESS);
    }
    EXPECT_EQ(call(), RPC_SUCCESS);
    EXPECT_EQ(records, 4);
    destroy();
  }
}

// Cancels on its call number `left`, counting from 0.
struct Canceller {
  int left;
  int calls = 0;
  static int32_t function(const timeval* elapsed, void* argument, const timeval* now) {
    EXPECT_TRUE(elapsed->tv_sec < 20 && now->tv_sec > 0);
    auto* self = static_cast<Canceller*>(argument);
    ++self->calls;
    return self->left-- <= 0 ? 1 : 0;
  }
};

TEST_F(TcpTest, CancellationAtEveryCallOfTheWaitFunction) {
  TcpPeer peer(answer_all);
  connect(peer);
  clnt_stat status = RPC_CANCELLED;
  int last = 0;
  for (; last < 50 && status == RPC_CANCELLED; ++last) {
    Canceller canceller = {last};
    rpc_wait waiting = {{5, 0}, Canceller::function, &canceller};
    ASSERT_TRUE(control(CLSET_WAIT_FUNCTION, &waiting));
    status = call();
    if (status == RPC_CANCELLED) {
      EXPECT_EQ(canceller.calls, last + 1);
    }
    ASSERT_TRUE(control(CLSET_WAIT_FUNCTION, nullptr));
    result_ = 0;
    ASSERT_EQ(call(), RPC_SUCCESS) << "usable after cancelling " << last;
    ASSERT_EQ(result_, 42);
  }
  EXPECT_EQ(status, RPC_SUCCESS);
  EXPECT_GE(last, 4) << "before and after, for writing and for reading";
}

TEST_F(TcpTest, CancellationWhileWaiting) {
  // Reading: the client stays usable.
  TcpPeer silent([](TcpConnection& connection) {
    (void)connection.read_record();
    answer_all(connection);
  });
  connect(silent);
  Canceller canceller = {6};
  rpc_wait waiting = {{0, 1000}, Canceller::function, &canceller};
  ASSERT_TRUE(control(CLSET_WAIT_FUNCTION, &waiting));
  EXPECT_EQ(call(), RPC_CANCELLED);
  expect_error(RPC_CANCELLED, 0);
  ASSERT_TRUE(control(CLSET_WAIT_FUNCTION, nullptr));
  EXPECT_EQ(call(), RPC_SUCCESS);

  // Writing: a part of the record has left, and the connection with it.
  TcpPeer stalled(stall);
  connect(stalled);
  canceller = {6};
  ASSERT_TRUE(control(CLSET_WAIT_FUNCTION, &waiting));
  EXPECT_EQ(send_much(12 << 20, kLong), RPC_CANCELLED);
  ASSERT_TRUE(control(CLSET_WAIT_FUNCTION, nullptr));
  EXPECT_EQ(call(), RPC_CANTSEND);
  expect_error(RPC_CANTSEND, EPIPE);
  destroy();
}

TEST_F(TcpTest, FailuresOfWriting) {
  TcpPeer stalled(stall);
  connect(stalled);
  EXPECT_EQ(send_much(12 << 20, kShort), RPC_TIMEDOUT) << "while the arguments are encoded";
  EXPECT_EQ(call(), RPC_CANTSEND);
  destroy();
  // At the end of a record it is a failed send.
  connect(stalled, -1, 16 << 20);
  int32_t argument = 0;
  auto fill = [](XDR* xdrs, void* value) {
    bool put = true;
    for (int i = 0; i < 3000000; ++i) {
      put = put && __brix_xdr_int(xdrs, static_cast<int32_t*>(value));
    }
    return put;
  };
  EXPECT_EQ(client_->ops->call(client_, 7, fill, &argument, __brix_xdr_void, nullptr, kShort),
            RPC_CANTSEND);
  expect_error(RPC_CANTSEND, ETIMEDOUT);
  destroy();

  TcpPeer resetting([](TcpConnection& connection) { connection.reset_at_end(); });
  connect(resetting);
  pollfd gone = {socket_, POLLHUP, 0};
  poll(&gone, 1, 10000);
  EXPECT_EQ(call(), RPC_CANTSEND);
  expect_error(RPC_CANTSEND, ECONNRESET);
}

// While the client cannot write, the peer sends before it reads on.
TEST_F(TcpTest, InputIsReadAheadWhileWriting) {
  const struct {
    const char* what;
    std::string early;
  } cases[] = {{"empty fragments", std::string(40, '\0')},
               {"a record", fragment("stray---")},
               {"both, cut", std::string(8, '\0') + fragment("stray---")}};
  for (const auto& [what, early] : cases) {
    SCOPED_TRACE(what);
    TcpPeer peer([&early = early](TcpConnection& connection) {
      for (char byte : early) connection.send(std::string(1, byte));
      pollfd input = {connection.socket(), POLLIN, 0};
      poll(&input, 1, -1);
      usleep(20000);  // the client has likely come to wait by now
      answer_all(connection);
    });
    connect(peer);
    ASSERT_TRUE(control(CLSET_WATCH_INPUT, client_));
    EXPECT_EQ(send_much(12 << 20, kLong), RPC_SUCCESS);
    EXPECT_EQ(call(), RPC_SUCCESS);
    EXPECT_EQ(result_, 42);
    destroy();
  }
}

TEST_F(TcpTest, EveryControlRequest) {
  TcpPeer peer(answer_all);
  connect(peer);
  timeval time{};
  ASSERT_TRUE(control(CLSET_TIMEOUT, nullptr) && control(CLGET_TIMEOUT, &time));
  EXPECT_EQ(time.tv_sec, 86400);
  int32_t number = -1;
  ASSERT_TRUE(control(CLGET_WAIT_STATE, &number));
  EXPECT_EQ(number, kWaitNoLimit);
  EXPECT_EQ(call(kShort), RPC_SUCCESS);
  EXPECT_FALSE(is_non_blocking()) << "without a limit it blocks";
  time = {7, 8};
  ASSERT_TRUE(control(CLSET_TIMEOUT, &time) && control(CLGET_WAIT_STATE, &number));
  EXPECT_EQ(number, kWaitSet);
  rpc_wait waiting{};
  ASSERT_TRUE(control(CLGET_WAIT_FUNCTION, &waiting));
  EXPECT_TRUE(waiting.step.tv_sec == 7 && waiting.step.tv_usec == 8 && waiting.function == nullptr);
  Canceller never = {INT32_MAX};
  waiting = {{1, 2}, Canceller::function, &never};
  ASSERT_TRUE(control(CLSET_WAIT_FUNCTION, &waiting) && control(CLSET_TIMEOUT, &time));
  waiting = {};
  ASSERT_TRUE(control(CLGET_WAIT_FUNCTION, &waiting));
  EXPECT_TRUE(waiting.step.tv_sec == 1 && waiting.argument == &never) << "the function's own step";
  ASSERT_TRUE(control(CLSET_WAIT_FUNCTION, nullptr) && control(CLGET_WAIT_FUNCTION, &waiting));
  EXPECT_TRUE(waiting.step.tv_sec == 7 && waiting.function == nullptr);
  for (int32_t state : {0, 1, 2}) {
    ASSERT_TRUE(control(CLSET_WAIT_STATE, &state) && control(CLGET_WAIT_STATE, &number));
    EXPECT_EQ(number, state);
  }
  number = 3;
  EXPECT_FALSE(control(CLSET_WAIT_STATE, &number));

  sockaddr_in server{};
  ASSERT_TRUE(control(CLGET_SERVER_ADDR, &server) && control(CLGET_FD, &number));
  EXPECT_EQ(ntohs(server.sin_port), peer.port());
  EXPECT_EQ(number, socket_);
  const std::pair<uint32_t, int> sizes[] = {{CLSET_RECEIVE_SIZE, SO_RCVBUF},
                                            {CLSET_SEND_SIZE, SO_SNDBUF}};
  for (const auto& [set, option] : sizes) {
    int wanted = 0;
    socklen_t length = sizeof wanted;
    ASSERT_TRUE(control(set, reinterpret_cast<void*>(30000)) && control(set - 1, &number));
    getsockopt(socket_, SOL_SOCKET, option, &wanted, &length);
    EXPECT_TRUE(number == wanted && wanted == 60000) << "the system doubles it";
  }
  for (bool on : {false, true}) {
    int delay = -1;
    socklen_t length = sizeof delay;
    void* pointer = on ? client_ : nullptr;
    ASSERT_TRUE(control(CLSET_NODELAY, pointer) && control(CLSET_AUTH_CONFIRMED, pointer) &&
                control(CLGET_AUTH_CONFIRMED, &number) && control(CLSET_WATCH_INPUT, pointer));
    getsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &delay, &length);
    EXPECT_TRUE(delay == (on ? 1 : 0) && number == delay);
  }
  XDR* stream = nullptr;
  ASSERT_TRUE(control(CLGET_STREAM, &stream));
  EXPECT_EQ(stream, get_xdr_from_chandle(client_));
  uint32_t methods = 0;
  ASSERT_TRUE(control(CLGET_AUTH_METHODS, &methods));
  EXPECT_EQ(methods, kAuthMethodsDefault);
  methods = 3;
  uint32_t known = 0;
  ASSERT_TRUE(control(CLSET_AUTH_METHODS, &methods) && control(CLGET_AUTH_METHODS, &known));
  EXPECT_EQ(known, 3U);
  for (uint32_t request : {4U, 5U, 7U, 19U, 38U, 69U, 70U, UINT32_MAX}) {
    EXPECT_FALSE(control(request, &number)) << request;
  }
  for (uint32_t request : {2U, 3U, 6U, 20U, 22U, 25U, 29U, 30U, 33U, 34U, 35U, 36U, 37U}) {
    EXPECT_FALSE(control(request, nullptr)) << request;
  }
}

std::string requests_of_stream;

TEST_F(TcpTest, TheOneCallOption) {
  TcpPeer peer(answer_all);
  connect(peer);
  XDR* stream = get_xdr_from_chandle(client_);
  xdr_ops told = *stream->ops;
  told.control = [](XDR*, uint32_t request, void*) {
    requests_of_stream += std::to_string(request);
    return true;
  };
  stream->ops = &told;
  int32_t enabled = -1;
  ASSERT_TRUE(control(CLSET_ONE_CALL, client_) && control(CLGET_ONE_CALL_ENABLED, &enabled));
  EXPECT_EQ(call(), RPC_SUCCESS);
  EXPECT_EQ(requests_of_stream, "") << "not enabled";
  ASSERT_TRUE(control(CLSET_ONE_CALL_ENABLED, nullptr) &&
              control(CLGET_ONE_CALL_ENABLED, &enabled));
  EXPECT_EQ(enabled, 0);
  ASSERT_TRUE(control(CLSET_ONE_CALL_ENABLED, client_) && control(CLSET_ONE_CALL, client_) &&
              control(CLGET_ONE_CALL_ENABLED, &enabled));
  EXPECT_EQ(enabled, 1);
  EXPECT_EQ(call(), RPC_SUCCESS);
  EXPECT_EQ(call(), RPC_SUCCESS);
  EXPECT_EQ(requests_of_stream, "01") << "for one call";
  destroy();  // while its table is there
}

TEST_F(TcpTest, Descriptors) {
  TcpPeer peer(answer_all);
  // One of the caller's is left open, in the mode it had.
  for (bool non_blocking : {false, true}) {
    int own = lab::connect_to_port(peer.port());
    if (non_blocking) fcntl(own, F_SETFL, O_NONBLOCK);
    connect(peer, own);
    EXPECT_EQ(call(), RPC_SUCCESS);
    if (non_blocking) {
      ASSERT_TRUE(control(CLSET_TIMEOUT, nullptr));
    }
    EXPECT_EQ(call(), RPC_SUCCESS);
    EXPECT_EQ(is_non_blocking(), !non_blocking) << "as the limits want it";
    destroy();
    EXPECT_EQ(is_non_blocking(), non_blocking);
    close(own);
  }
  connect(peer);
  int on = 0;
  socklen_t length = sizeof on;
  getsockopt(socket_, SOL_SOCKET, SO_KEEPALIVE, &on, &length);
  EXPECT_EQ(on, 1);
  EXPECT_EQ(call(), RPC_SUCCESS);
  ASSERT_TRUE(control(CLSET_FD_NCLOSE, nullptr));
  destroy();
  EXPECT_FALSE(is_non_blocking());
  connect(peer, socket_);
  ASSERT_TRUE(control(CLSET_FD_CLOSE, nullptr));
  destroy();
  EXPECT_EQ(fcntl(socket_, F_GETFD), -1);
}

TEST_F(TcpTest, CreationFails) {
  get_rpc_p_varp();  // the block waits for its memory
  sockaddr_in nobody = loopback(9);
  auto create = [&nobody](int socket) {
    return __brix_clnttcp_create(&nobody, 5, 6, &socket, 0, 0);
  };
  auto cause = [] {
    EXPECT_EQ(__get_rpc_createerr()->status, RPC_SYSTEMERROR);
    return __get_rpc_createerr()->cause.error_number;
  };
  EXPECT_EQ(create(-1), nullptr);
  EXPECT_EQ(cause(), ECONNREFUSED);
  EXPECT_EQ(create(65536), nullptr);
  EXPECT_EQ(cause(), EMFILE);
  TcpPeer peer(answer_all);
  nobody = loopback(peer.port());
  int next = dup(0);
  close(next);
  for (int allowed = 0;; ++allowed) {
    FailingMalloc memory(allowed);
    CLIENT* client = create(-1);
    if (client != nullptr) {
      client->ops->destroy(client);
      EXPECT_GE(allowed, 3) << "handle, record, stream";
      break;
    }
    EXPECT_EQ(cause(), ENOMEM);
    int now = dup(0);
    close(now);
    EXPECT_EQ(now, next) << "no socket is left open";
  }
}

TEST_F(TcpTest, AllowedMethodsComeFromTheTable) {
  TcpPeer peer(answer_all);
  Debug = 1;
  const struct {
    rpc_auth_methods_lookup table;
    uint32_t methods;
    const char* told;
  } cases[] = {{nullptr, 79, "Auth methods not set, using default\n"},
               {[](const sockaddr_in*, uint32_t*) { return false; }, 79,
                "Error on getting auth methods, using default\n"},
               {[](const sockaddr_in* server, uint32_t* methods) {
                  *methods = server->sin_family == AF_INET ? 5 : 0;
                  return true;
                },
                5, ""}};
  for (const auto& [table, wanted, told] : cases) {
    rpc_install_auth_methods(table);
    testing::internal::CaptureStderr();
    connect(peer);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::EndsWith(told));
    uint32_t methods = 0;
    ASSERT_TRUE(control(CLGET_AUTH_METHODS, &methods));
    EXPECT_EQ(methods, wanted);
  }
  Debug = 0;
  rpc_install_auth_methods(nullptr);
}

// The two tests below use a process of their own for each environment, with a peer
// that ends before it does.

// How the socket was driven: bit 0 blocking with a limit, bit 1 without, bit 2 without
// while input is watched.
int modes_with(const char* value) {
  setenv("KIV_BLOCKING_RPC", value, 1);
  TcpPeer peer(answer_all);
  sockaddr_in server = loopback(peer.port());
  int socket = -1;
  CLIENT* client = __brix_clnttcp_create(&server, 5, 6, &socket, 0, 0);
  int modes = 0;
  for (int bit = 0; bit < 3; ++bit) {
    if (bit == 1) client->ops->control(client, CLSET_TIMEOUT, nullptr);
    if (bit == 2) client->ops->control(client, CLSET_WATCH_INPUT, client);
    client->ops->call(client, 0, nullptr, nullptr, __brix_xdr_void, nullptr, kLong);
    if ((fcntl(socket, F_GETFL) & O_NONBLOCK) == 0) modes |= 1 << bit;
  }
  client->ops->destroy(client);
  return modes;
}

TEST_F(TcpTest, BlockingModes) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::pair<const char*, int> cases[] = {{"must", 7}, {"True", 6}, {"no", 6}, {"fALSE", 2}};
  for (const auto& [value, modes] : cases) {
    EXPECT_EXIT(_exit(modes_with(value)), testing::ExitedWithCode(modes), "") << value;
  }
}

// Answers 100000 times the letter d with as many of the letter e.
void answer_much(TcpConnection& connection) {
  while (auto request = connection.read_record()) {
    if (request->substr(40) != std::string(100000, 'd')) continue;
    connection.send(fragment(lab::success_to(*request, "") + std::string(100000, 'e')));
  }
}

// Whether socket buffers keep their size and much data comes through.
bool works_with(const char* directory) {
  setenv("KIV_DEBUG_DIR", directory, 1);
  setenv("KIV_SOCK_BUF_UNSET", "Yes", 1);
  Debug = 1;
  TcpPeer peer(answer_much);
  sockaddr_in server = loopback(peer.port());
  int socket = -1;
  CLIENT* client = __brix_clnttcp_create(&server, 5, 6, &socket, 0, 0);
  int before = 0;
  int after = 0;
  client->ops->control(client, CLGET_SEND_SIZE, &before);
  bool kept = client->ops->control(client, CLSET_SEND_SIZE, reinterpret_cast<void*>(4321)) &&
              client->ops->control(client, CLGET_SEND_SIZE, &after) && after == before;
  std::string data(100001, 'd');
  auto opaque = [](XDR* xdrs, void* bytes) { return __brix_xdr_opaque(xdrs, bytes, 100000); };
  clnt_stat status = client->ops->call(client, 7, opaque, data.data(), opaque, data.data(), kLong);
  client->ops->destroy(client);
  return kept && status == RPC_SUCCESS && data == std::string(100000, 'e') + 'd';
}

TEST_F(TcpTest, SwitchesOfTheDebugDirectory) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  mkdir("/run/debug", 0755);
  for (const char* name : {"", "nowritev", "noreadv"}) {
    if (*name != '\0') lab::write_file(std::string("/run/debug/") + name, "");
    EXPECT_EXIT(_exit(works_with("/run/debug") ? 0 : 1), testing::ExitedWithCode(0),
                "The environment variable KIV_SOCK_BUF_UNSET is set to 'Yes'. This overrides "
                "default behavior");
  }
}

TEST_F(TcpTest, CreationByName) {
  setenv("KIV_TRANSPORT", "SPP", 1);
  for (const char* name : {"tcp", "PIPE", "shm", "spp", ""}) {
    EXPECT_EQ(__brix_clnt_create("", 100000, 2, name), nullptr);
    EXPECT_EQ(__get_rpc_createerr()->cause.error_number, ECONNREFUSED) << "no port mapper";
  }
  unsetenv("KIV_TRANSPORT");
}

}  // namespace

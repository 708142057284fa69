#include "rpc/c_udp.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "rpc/a_none.h"
#include "rpc/a_unix.h"
#include "rpc/auth.h"
#include "rpc/rpc_prot.h"
#include "rpc/rpcvarp.h"
#include "tests/failing_malloc.h"
#include "tests/rpc_server.h"

namespace {

using lab::RpcServer;
using Replies = std::vector<std::string>;

constexpr timeval kLong = {20, 0};  // nothing waits so long

timeval milliseconds(long count) { return {count / 1000, count % 1000 * 1000}; }

class UdpTest : public LabTest {
 protected:
  void TearDown() override {
    if (client_ != nullptr) client_->ops->destroy(client_);
  }

  // A client of program 5, version 6 at the server.
  CLIENT* connect(const RpcServer& server, timeval retry = kLong) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(server.port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int socket = -1;
    client_ = __brix_clntudp_create(&address, 5, 6, retry, &socket);
    EXPECT_NE(client_, nullptr);
    return client_;
  }

  // Calls procedure 7 with the argument 8.
  clnt_stat call(timeval limit = kLong) {
    int32_t argument = 8;
    return client_->ops->call(client_, 7, xdr_filter<__brix_xdr_int>, &argument,
                              xdr_filter<__brix_xdr_int>, &result_, limit);
  }

  rpc_err error() const {
    rpc_err error{};
    client_->ops->geterr(client_, &error);
    return error;
  }

  CLIENT* client_ = nullptr;
  int32_t result_ = 0;
};

TEST_F(UdpTest, CallsAreSentInFullAndAnswered) {
  RpcServer server(0, "127.0.0.1", [](const std::string& request) {
    return Replies{lab::success_to(request, "0000002A")};
  });
  connect(server);
  for (int i = 0; i < 300; ++i) ASSERT_EQ(call(), RPC_SUCCESS);
  EXPECT_EQ(result_, 42);
  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 300U);
  unsigned id = 0;
  for (const std::string& request : requests) {
    EXPECT_EQ(to_hex(request.substr(4)),
              "000000000000000200000005000000060000000700000000000000000000000000000000"
              "00000008");
    // The id counts up as a number of 16 bits whose low byte comes first.
    unsigned next = static_cast<uint8_t>(request[0]) + static_cast<uint8_t>(request[1]) * 256U;
    if (&request != requests.data()) {
      EXPECT_EQ(next, (id + 1) & 0xFFFF);
    }
    EXPECT_EQ(request.substr(2, 2), requests[0].substr(2, 2));
    id = next;
  }
}

// What each reply comes to, the detail of the error, and how often the call was sent.
TEST_F(UdpTest, RepliesAndWhatTheyMean) {
  const struct {
    const char* hex;  // behind the transaction id
    clnt_stat status;
    int32_t detail;
  } cases[] = {
      {"00000001 00000000 00000000 00000000 00000000 00000001", RPC_SUCCESS, 0},
      {"00000001 00000000 00000002 00000004 61626364 00000000 00000001", RPC_SUCCESS, 0},
      {"00000001 00000000 00000000 00000000 00000000", RPC_CANTDECODERES, 0},
      {"00000001 00000000 00000002 00000004 61626364 00000000", RPC_CANTDECODERES, 0},
      {"00000001 00000000 00000000 00007FE9", RPC_CANTDECODERES, 0},
      {"00000001 00000000 00000000 FFFFFFFF 00000000", RPC_CANTDECODERES, 0},
      {"00000000 00000000 00000000 00000000 00000000 00000001", RPC_CANTDECODERES, 0},
      {"00000001 00000002", RPC_CANTDECODERES, 0},
      {"", RPC_CANTDECODERES, 0},
      {"00000001 00000000 00000000 00000000 00000001", RPC_PROGUNAVAIL, 0},
      {"00000001 00000000 00000000 00000004 61626364 00000001", RPC_PROGUNAVAIL, 0},
      {"00000001 00000000 00000000 00000000 00000002 00000003 00000009", RPC_PROGVERSMISMATCH, 3},
      {"00000001 00000001 00000000 00000002 00000003", RPC_VERSMISMATCH, 2},
      {"00000001 00000001 00000001 00000002", RPC_AUTHERROR, 2},
  };
  std::string hex;
  RpcServer server(0, "127.0.0.1", [&hex](const std::string& request) {
    return Replies{lab::reply_to(request, hex)};
  });
  connect(server);
  for (const auto& test : cases) {
    SCOPED_TRACE(test.hex);
    hex = test.hex;
    size_t before = server.requests().size();
    EXPECT_EQ(call(), test.status);
    EXPECT_EQ(error().status, test.status);
    EXPECT_EQ(error().first_word, test.detail);
    EXPECT_EQ(server.requests().size(), before + 1);
  }
}

TEST_F(UdpTest, DatagramsThatAreNotTheReplyAreDropped) {
  RpcServer server(0, "127.0.0.1", [](const std::string& request) {
    std::string other = request;
    other[3] ^= 1;
    return Replies{"", request.substr(0, 3), lab::success_to(other, "00000007"),
                   std::string(9000, '\xFF'), lab::success_to(request, "00000009")};
  });
  connect(server);
  EXPECT_EQ(call(), RPC_SUCCESS);
  EXPECT_EQ(result_, 9);
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(UdpTest, Retransmission) {
  const struct {
    timeval retry;
    timeval limit;
    size_t sent;
  } cases[] = {
      {milliseconds(20), milliseconds(100), 5}, {milliseconds(20), milliseconds(101), 6},
      {milliseconds(50), milliseconds(50), 1},  {milliseconds(50), milliseconds(10), 1},
      {milliseconds(0), milliseconds(50), 1},   {kLong, milliseconds(0), 1},
      {milliseconds(500), {1, 0}, 2},
  };
  RpcServer server(0, "127.0.0.1", lab::silence);
  connect(server);
  for (const auto& test : cases) {
    SCOPED_TRACE(test.sent);
    timeval retry = test.retry;
    ASSERT_TRUE(client_->ops->control(client_, CLSET_RETRY_TIMEOUT, &retry));
    size_t before = server.requests().size();
    EXPECT_EQ(call(test.limit), RPC_TIMEDOUT);
    EXPECT_EQ(error().status, RPC_TIMEDOUT);
    for (int i = 0; i < 500 && server.requests().size() < before + test.sent; ++i) usleep(1000);
    auto requests = server.requests();
    ASSERT_EQ(requests.size(), before + test.sent);
    for (size_t i = before; i < requests.size(); ++i) EXPECT_EQ(requests[i], requests[before]);
  }
}

TEST_F(UdpTest, SignalsNeitherEndNorRepeatACall) {
  struct sigaction ignore = {};
  ignore.sa_handler = [](int) {};
  sigaction(SIGUSR1, &ignore, nullptr);
  pthread_t caller = pthread_self();
  RpcServer server(0, "127.0.0.1", [caller](const std::string& request) {
    for (int i = 0; i < 20; ++i) {
      pthread_kill(caller, SIGUSR1);
      usleep(2000);
    }
    return Replies{lab::success_to(request, "00000005")};
  });
  connect(server);
  EXPECT_EQ(call(), RPC_SUCCESS);
  EXPECT_EQ(result_, 5);
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(UdpTest, ControlRequests) {
  RpcServer server(0, "127.0.0.1", lab::silence);
  connect(server, {3, 4});
  auto control = [this](uint32_t request, auto* information) {
    return client_->ops->control(client_, request, information);
  };
  timeval time{};
  ASSERT_TRUE(control(CLGET_TIMEOUT, &time));
  EXPECT_EQ(time.tv_sec, -1);
  EXPECT_EQ(time.tv_usec, -1);
  ASSERT_TRUE(control(CLGET_RETRY_TIMEOUT, &time));
  EXPECT_EQ(time.tv_sec, 3);
  EXPECT_EQ(time.tv_usec, 4);
  time = {0, 0};
  ASSERT_TRUE(control(CLSET_TIMEOUT, &time));
  EXPECT_EQ(call(kLong), RPC_TIMEDOUT);  // the client's limit wins over the call's
  sockaddr_in address{};
  ASSERT_TRUE(control(CLGET_SERVER_ADDR, &address));
  EXPECT_EQ(ntohs(address.sin_port), server.port());
  int32_t confirmed = 7;
  ASSERT_TRUE(control(CLGET_AUTH_CONFIRMED, &confirmed));
  EXPECT_EQ(confirmed, 0);
  ASSERT_TRUE(control(CLSET_AUTH_CONFIRMED, &confirmed));
  ASSERT_TRUE(control(CLGET_AUTH_CONFIRMED, &confirmed));
  EXPECT_EQ(confirmed, 1);
  uint64_t anything[8] = {};
  for (uint32_t request = 0; request < 80; ++request) {
    const bool known = (request >= 1 && request <= 9 && request != 7) ||
                       request == CLSET_AUTH_CONFIRMED || request == CLGET_AUTH_CONFIRMED;
    EXPECT_EQ(control(request, anything), known) << request;
    EXPECT_FALSE(client_->ops->control(client_, request, nullptr)) << request;
  }
}

TEST_F(UdpTest, DestroyClosesTheSocketThatIsItsOwn) {
  RpcServer server(0, "127.0.0.1", lab::silence);
  auto destroy_after = [&](uint32_t request) {
    int descriptor = -1;
    connect(server);
    client_->ops->control(client_, CLGET_FD, &descriptor);
    EXPECT_NE(fcntl(descriptor, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
    client_->ops->control(client_, request, &descriptor);
    client_->ops->destroy(client_);
    client_ = nullptr;
    bool open = fcntl(descriptor, F_GETFD) != -1;
    if (open) close(descriptor);
    return open;
  };
  EXPECT_FALSE(destroy_after(CLSET_FD_CLOSE));
  EXPECT_TRUE(destroy_after(CLSET_FD_NCLOSE));
}

// Makes a client with sizes and socket given, at an address that needs no look-up.
CLIENT* make(uint32_t send_size, uint32_t receive_size, int* socket, uint16_t port = 9) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return __brix_clntudp_bufcreate(&address, 1, 1, kLong, socket, send_size, receive_size);
}

TEST_F(UdpTest, SizesOfMessages) {
  // The largest argument that can be encoded: 40 bytes of the size are the call's own,
  // 4 the argument's length.
  const std::pair<uint32_t, uint32_t> cases[] = {
      {0, 4000}, {99, 4000}, {100, 100}, {101, 104}, {8801, 8804}};
  static uint32_t bytes = 0;
  xdrproc_t opaque = [](XDR* xdrs, void* object) { return __brix_xdr_opaque(xdrs, object, bytes); };
  std::vector<char> argument(9000);
  for (auto [given, actual] : cases) {
    SCOPED_TRACE(given);
    int socket = -1;
    client_ = make(given, given, &socket);
    ASSERT_NE(client_, nullptr);
    for (uint32_t over : {0U, 4U}) {
      bytes = actual - 40 + over;
      EXPECT_EQ(client_->ops->call(client_, 1, opaque, argument.data(), __brix_xdr_void, nullptr,
                                   timeval{}),
                over == 0 ? RPC_TIMEDOUT : RPC_CANTENCODEARGS);
    }
    EXPECT_EQ(error().status, RPC_CANTENCODEARGS);
    client_->ops->destroy(client_);
    client_ = nullptr;
  }
}

TEST_F(UdpTest, AGivenSocketStaysTheCallers) {
  RpcServer server(0, "127.0.0.1", [](const std::string& request) {
    return Replies{lab::success_to(request, "00000001")};
  });
  int given = ::socket(AF_INET, SOCK_DGRAM, 0);
  int socket = given;
  client_ = make(0, 0, &socket, server.port());
  EXPECT_EQ(socket, given);
  EXPECT_EQ(call(), RPC_SUCCESS);
  client_->ops->destroy(client_);
  client_ = nullptr;
  EXPECT_NE(fcntl(given, F_GETFD), -1);
  close(given);
}

TEST_F(UdpTest, FailingSockets) {
  RpcServer server(0, "127.0.0.1", lab::silence);
  connect(server);
  int descriptor = -1;
  client_->ops->control(client_, CLGET_FD, &descriptor);
  close(descriptor);
  EXPECT_EQ(call(), RPC_CANTSEND);
  EXPECT_EQ(error().error_number, EBADF);
  client_->ops->destroy(client_);
  // A connected socket hears of a port that nobody listens on.
  int connected = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in nobody{};
  nobody.sin_family = AF_INET;
  nobody.sin_port = htons(9);
  nobody.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::connect(connected, reinterpret_cast<sockaddr*>(&nobody), sizeof nobody), 0);
  client_ = make(0, 0, &connected, 9);
  EXPECT_EQ(call(), RPC_CANTRECV);
  EXPECT_EQ(error().error_number, ECONNREFUSED);
  close(connected);
  client_->ops->destroy(client_);
  connect(server, {-1, 0});  // no time to wait for
  EXPECT_EQ(call(), RPC_CANTRECV);
  EXPECT_EQ(error().error_number, EINVAL);
}

TEST_F(UdpTest, HighDescriptors) {
  RpcServer server(0, "127.0.0.1", [](const std::string& request) {
    return Replies{lab::success_to(request, "00000006")};
  });
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  int low = ::socket(AF_INET, SOCK_DGRAM, 0);
  int high = fcntl(low, F_DUPFD, static_cast<int>(std::min<rlim_t>(limit.rlim_cur, 65536)) - 1);
  ASSERT_GT(high, FD_SETSIZE);
  client_ = make(0, 0, &high, server.port());
  EXPECT_EQ(call(), RPC_SUCCESS);
  close(low);
  close(high);
}

// The numbers alone decide, so nothing needs to be open.
TEST_F(UdpTest, DescriptorsAbove65535CannotBeWaitedOn) {
  int last = 65535;
  client_ = make(0, 0, &last);
  ASSERT_NE(client_, nullptr);
  int beyond = 65536;
  EXPECT_EQ(make(0, 0, &beyond), nullptr);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_EQ(__get_rpc_createerr()->status, RPC_SYSTEMERROR);
  EXPECT_EQ(__get_rpc_createerr()->cause.error_number, EMFILE);
}

TEST_F(UdpTest, NoMemory) {
  for (int allowed = 0; allowed < 2; ++allowed) {
    int socket = -1;
    errno = 0;
    *__get_rpc_createerr() = {};
    CLIENT* client = nullptr;
    {
      FailingMalloc failing(allowed);
      client = make(0, 0, &socket);
    }
    EXPECT_EQ(client, nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(__get_rpc_createerr()->status, RPC_SYSTEMERROR);
    EXPECT_EQ(__get_rpc_createerr()->cause.error_number, ENOMEM);
    EXPECT_EQ(socket, -1);
  }
}

// --- Refused calls ---------------------------------------------------------------

// A flavour of any number that counts what it is asked. It owns nothing.
struct CountingAuth {
  AUTH handle{};
  int refreshes_left = 0;
  int refreshed = 0;
  int destroyed = 0;
  bool valid = true;
  bool wants_refresh = false;

  static CountingAuth* of(AUTH* auth) { return static_cast<CountingAuth*>(auth->private_data); }

  explicit CountingAuth(int32_t flavour) {
    static constexpr auth_ops kOps = {
        [](AUTH*) {},
        [](AUTH*, XDR* xdrs) { return xdrs->ops->get_inline(xdrs, 16) != nullptr; },
        [](AUTH* auth, const opaque_auth*) { return of(auth)->valid; },
        [](AUTH* auth) {
          ++of(auth)->refreshed;
          return of(auth)->refreshes_left-- > 0;
        },
        [](AUTH* auth, bool, CLIENT*) { return of(auth)->wants_refresh; },
        [](AUTH* auth) { ++of(auth)->destroyed; },
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
    int refreshes;  // that succeed
    bool confirmed;
    size_t sent;
    int refreshed;
    int destroyed;
  } cases[] = {
      {"no refresh", 99, kTooWeak, 0, false, 1, 1, 0},
      {"one refresh", 99, kTooWeak, 1, false, 2, 2, 0},
      {"two at most", 99, kTooWeak, 9, false, 3, 2, 0},
      {"nothing weaker than flavour 99", 99, kRejected, 0, false, 1, 1, 0},
      {"system falls back to none", kAuthSystem, kRejected, 9, false, 2, 0, 1},
      {"not when it was confirmed", kAuthSystem, kRejected, 1, true, 2, 2, 0},
      {"not for another reason", kAuthSystem, kTooWeak, 0, false, 1, 1, 0},
      {"the first word counts", kAuthSystem, kVersion2, 0, false, 2, 0, 1},
  };
  std::string hex;
  RpcServer server(0, "127.0.0.1", [&hex](const std::string& request) {
    return Replies{lab::reply_to(request, hex)};
  });
  for (const auto& test : cases) {
    SCOPED_TRACE(test.title);
    hex = test.hex;
    CountingAuth auth(test.flavour);
    auth.refreshes_left = test.refreshes;
    connect(server);
    client_->auth = &auth.handle;
    if (test.confirmed) client_->ops->control(client_, CLSET_AUTH_CONFIRMED, &hex);
    size_t before = server.requests().size();
    EXPECT_NE(call(), RPC_SUCCESS);
    EXPECT_EQ(server.requests().size(), before + test.sent);
    EXPECT_EQ(auth.refreshed, test.refreshed);
    EXPECT_EQ(auth.destroyed, test.destroyed);
    EXPECT_EQ(client_->auth == __brix_authnone_create(), test.destroyed == 1);
    client_->ops->destroy(client_);
    client_ = nullptr;
  }
}

TEST_F(UdpTest, VerifiersThatAreRefused) {
  RpcServer server(0, "127.0.0.1", [](const std::string& request) {
    return Replies{lab::success_to(request, "00000005")};
  });
  CountingAuth auth(99);
  auth.valid = false;
  auth.refreshes_left = 5;
  connect(server);
  client_->auth = &auth.handle;
  EXPECT_EQ(call(), RPC_AUTHERROR);
  EXPECT_EQ(error().why, kAuthInvalidServerVerifier);
  EXPECT_EQ(auth.refreshed, 0);
  int32_t confirmed = 0;
  client_->ops->control(client_, CLGET_AUTH_CONFIRMED, &confirmed);
  EXPECT_EQ(confirmed, 1);

  auth.valid = true;
  auth.wants_refresh = true;
  EXPECT_EQ(call(), RPC_SUCCESS);
  EXPECT_EQ(auth.refreshed, 1);
  auth.refreshes_left = 0;  // and the call is not even sent
  EXPECT_EQ(call(), RPC_SUCCESS) << "the status of the call before";
  EXPECT_EQ(server.requests().size(), 2U);
  client_->auth = nullptr;
  EXPECT_EQ(call(), RPC_AUTHERROR);
  EXPECT_EQ(error().why, kAuthFailed);
}

TEST_F(UdpTest, FreeresReleasesResults) {
  RpcServer server(0, "127.0.0.1", [](const std::string& request) {
    return Replies{lab::success_to(request, "00000003 61626300")};
  });
  connect(server);
  char* text = nullptr;
  int32_t argument = 0;
  ASSERT_EQ(client_->ops->call(client_, 1, xdr_filter<__brix_xdr_int>, &argument,
                               xdr_filter<__brix_xdr_wrapstring>, &text, kLong),
            RPC_SUCCESS);
  EXPECT_STREQ(text, "abc");
  EXPECT_TRUE(client_->ops->freeres(client_, xdr_filter<__brix_xdr_wrapstring>, &text));
  EXPECT_EQ(text, nullptr);
}

}  // namespace

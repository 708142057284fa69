#include "rpc/transport/c_udp.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "rpc/xdr/buffer_size.h"
#include "tests/failing_calls.h"
#include "tests/rpc_client.h"
#include "tests/rpc_server.h"

namespace {

using lab::kLong;
using lab::RpcServer;
using Replies = std::vector<std::string>;

timeval milliseconds(long count) { return {count / 1000, count % 1000 * 1000}; }

Replies answer(const std::string& request) { return {lab::success_to(request, "00000003")}; }

class UdpTest : public lab::ClientTest {
 protected:
  CLIENT* connect(const RpcServer& server, timeval retry = kLong, int socket = -1) {
    return create(lab::kUdp, server.port(), socket, 100, retry);
  }
};

TEST_F(UdpTest, DatagramsThatAreNotTheReplyAreDropped) {
  RpcServer server(0, "127.0.0.1", [](const std::string& request) {
    std::string other = request;
    other[3] ^= 1;
    return Replies{"", request.substr(0, 3), lab::success_to(other, "00000007"),
                   std::string(9000, '\xFF'), request.substr(0, 4)};
  });
  connect(server);
  expect(call(), RPC_CANTDECODERES);  // as what comes last is no reply
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(UdpTest, Retransmission) {
  const struct {
    timeval retry;
    timeval limit;
    size_t sent;
  } cases[] = {{milliseconds(20), milliseconds(100), 5},
               {milliseconds(20), milliseconds(101), 6},
               {milliseconds(50), milliseconds(10), 1},
               {milliseconds(0), milliseconds(50), 1},
               {kLong, milliseconds(0), 1},
               {milliseconds(500), {1, 0}, 2}};
  RpcServer server(0, "127.0.0.1", lab::silence);
  for (const auto& test : cases) {
    SCOPED_TRACE(test.sent);
    connect(server);
    timeval retry = test.retry;
    ASSERT_TRUE(control(CLSET_RETRY_TIMEOUT, &retry));
    const size_t before = server.requests().size();
    expect(call(test.limit), RPC_TIMEDOUT);
    for (int i = 0; i < 500 && server.requests().size() < before + test.sent; ++i) usleep(1000);
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), before + test.sent);
    for (size_t i = before; i < requests.size(); ++i) EXPECT_EQ(requests[i], requests[before]);
  }
}

TEST_F(UdpTest, ControlRequests) {
  RpcServer server(0, "127.0.0.1", lab::silence);
  connect(server);
  EXPECT_NE(fcntl(socket_, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(get<timeval>(CLGET_TIMEOUT).tv_sec, -1);
  timeval time = {0, 0};
  ASSERT_TRUE(control(CLSET_TIMEOUT, &time));
  EXPECT_EQ(call(kLong), RPC_TIMEDOUT);  // the client's limit wins over the call's
  time = {3, 4};
  ASSERT_TRUE(control(1, &time));
  EXPECT_EQ(get<timeval>(2).tv_usec, 4);
  EXPECT_EQ(get<timeval>(5).tv_sec, kLong.tv_sec);
  ASSERT_TRUE(control(4, &time));
  EXPECT_EQ(get<timeval>(5).tv_sec, 3);
  uint64_t anything[8] = {};
  for (uint32_t request = 0; request < 80; ++request) {
    const bool known =
        (request >= 1 && request <= 9 && request != 7) || request == 27 || request == 29;
    EXPECT_EQ(control(request, anything), known) << request;
    EXPECT_FALSE(control(request, nullptr)) << request;
  }
  EXPECT_EQ(get<int32_t>(29), 1);
}

TEST_F(UdpTest, FailingCalls) {
  RpcServer server(0, "127.0.0.1", answer);
  connect(server);
  // Of the 100 bytes 40 are the call's own.
  auto opaque = [](XDR* xdrs, void* size) {
    char bytes[64] = {};
    return __brix_xdr_opaque(xdrs, bytes, *static_cast<uint32_t*>(size));
  };
  for (uint32_t size : {60U, 64U}) {
    EXPECT_EQ(call_with(opaque, &size, {0, 0}), size == 60 ? RPC_TIMEDOUT : RPC_CANTENCODEARGS);
  }
  // Signals neither end nor repeat a call, nor does a datagram that is gone again.
  for (int error : {EINTR, EAGAIN, ENOMEM, EINPROGRESS}) {
    failing_calls::refuse(failing_calls::waits, EINTR, 20);
    failing_calls::refuse(failing_calls::reads, error, 3);
    EXPECT_EQ(call(), RPC_SUCCESS) << error;
  }
  EXPECT_EQ(server.requests().size(), 5U);
  failing_calls::refuse(failing_calls::reads, EIO);
  expect(call(), RPC_CANTRECV, EIO);
  failing_calls::refuse(failing_calls::waits, EINVAL);
  expect(call(), RPC_CANTRECV, EINVAL);
  close(socket_);
  expect(call(), RPC_CANTSEND, EBADF);
  socket_ = -1;
}

static_assert(rpc_buffer_size(0) == 4000 && rpc_buffer_size(99) == 4000);
static_assert(rpc_buffer_size(100) == 100 && rpc_buffer_size(8801) == 8804);
static_assert(rpc_buffer_size(UINT32_MAX) == 0xFFFFFFFC);

}  // namespace

#include "rpc/transport/c_udp.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "rpc/xdr/buffer_size.h"
#include "tests/failing_calls.h"
#include "tests/rpc_client.h"
#include "tests/rpc_server.h"

namespace {

using failing_calls::refuse;
using lab::kLong;
using lab::RpcServer;
using Replies = std::vector<std::string>;

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
    timeval retry, limit;
    size_t sent;
    timeval waited;  // at once
  } cases[] = {{{5, 0}, {25, 0}, 5, {5, 0}},          {{5, 0}, {25, 1}, 6, {5, 0}},
               {{0, 500000}, {1, 0}, 2, {0, 500000}}, {{1, 600000}, {3, 200001}, 3, {1, 600000}},
               {{25, 0}, {1, 0}, 1, {25, 0}},         {{0, 0}, {3, 0}, 1, {3, 0}},
               {{0, 0}, {0, 1}, 1, {0, 1}},           {{7, 0}, {0, 0}, 1, {0, 1}}};
  RpcServer server(0, "127.0.0.1", lab::silence);
  size_t all = 0;
  for (const auto& [retry, limit, sent, waited] : cases) {
    connect(server, retry);
    refuse(failing_calls::waits, 0, 100);
    expect(call(limit), RPC_TIMEDOUT);
    EXPECT_TRUE(timercmp(&failing_calls::last_wait, &waited, ==)) << all;
    all += sent;
    for (int i = 0; i < 5000 && server.requests().size() < all; ++i) usleep(1000);
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), all);
    for (size_t i = 1; i <= sent; ++i) EXPECT_EQ(requests[all - i], requests.back());
  }
  refuse(failing_calls::waits, 0, 0);
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

TEST_F(UdpTest, ArgumentsHaveTheSizeOfTheBuffer) {
  RpcServer server(0, "127.0.0.1", lab::silence);
  connect(server);
  // Of the 100 bytes 40 are the call's own.
  auto opaque = [](XDR* xdrs, void* size) {
    char bytes[64] = {};
    return __brix_xdr_opaque(xdrs, bytes, *static_cast<uint32_t*>(size));
  };
  for (uint32_t size : {60U, 64U}) {
    EXPECT_EQ(call_with(opaque, &size, {0, 0}), size == 60 ? RPC_TIMEDOUT : RPC_CANTENCODEARGS);
  }
}

static_assert(rpc_buffer_size(0) == 4000 && rpc_buffer_size(99) == 4000);
static_assert(rpc_buffer_size(100) == 100 && rpc_buffer_size(8801) == 8804);
static_assert(rpc_buffer_size(UINT32_MAX) == 0xFFFFFFFC);

}  // namespace

#include "rpc/transport/brsvport.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <set>

#include "rpc/handle/rpcvarp.h"
#include "rpc/transport/c_transport.h"
#include "tests/fakes.h"
#include "tests/rpc_server.h"
#include "tests/work.h"

namespace {

using testing::HasSubstr;

// 192.0.2.99, which is not one of this host's.
const sockaddr_in kElsewhere = {AF_INET, 0, {htonl(0xC0000263)}, {}};

// Sockets that stay bound until the test ends.
class BindTest : public testing::Test {
 protected:
  void TearDown() override {
    while (count_ > 0) close(open_[--count_]);
  }

  // The port that a new socket was bound to; the negative errno when it was not.
  int bind_new(int32_t type, const sockaddr_in* address = nullptr) {
    const int descriptor = open_[count_++] = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int bound = __brix_bindresvport(descriptor, address, type);
    return bound != 0 ? bound * errno : machine::port_of(descriptor);
  }

  // What is told at a debug level when a socket is to be bound with this result.
  std::string told(int level, int32_t type, const sockaddr_in* address, int result) {
    return printed(level, [&] {
      const int port = bind_new(type, address);
      EXPECT_TRUE(port == result || (result == 0 && port >= 1024)) << port;
    });
  }

  std::atomic<size_t> count_ = 0;
  int open_[700];
};

TEST_F(BindTest, WithoutRangesTheSystemChooses) {
  EXPECT_EQ(told(4, kPortConnection, nullptr, 0) + told(2, kPortConnection, &kElsewhere, -99), "");
  EXPECT_THAT(told(5, kPortConnection, nullptr, 0), HasSubstr("socket bound to arbitrary port\n"));
  EXPECT_THAT(told(3, kPortConnection, &kElsewhere, -EADDRNOTAVAIL),
              HasSubstr("socket bind to arbitrary port failed (errno 99)\n"));
  const sockaddr_in foreign = {AF_INET6, 0, {}, {}};
  EXPECT_EQ(bind_new(kPortConnection, &foreign), -EPFNOSUPPORT);
  for (int32_t type : {-1, 3}) {
    EXPECT_EQ(bind_new(type), -EINVAL);
    EXPECT_TRUE(rpcport_count(type) == 0 && rpcport_add_range(1, 2, type) == -1);
  }
  EXPECT_TRUE(rpcport_add_range(0, 2, 0) == -1 && rpcport_add_range(3, 2, 0) == -1);
  fakes::FailingMalloc nothing(0);
  EXPECT_EQ(rpcport_add_range(1, 2, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
}

TEST_F(BindTest, ThreadsFindEveryPortOfTheRanges) {
  ASSERT_EQ(rpcport_add_range(40000, 40600, kPortReserved), 0);
  ASSERT_EQ(rpcport_add_range(50000, 50000, kPortReserved), 0);
  EXPECT_EQ(rpcport_count(kPortReserved), 602);
  int ports[602];
  in_threads(7, [&](int thread) {
    for (int i = 0; i < 86; ++i) ports[thread * 86 + i] = bind_new(kPortReserved);
  });
  const std::set<int> found(std::begin(ports), std::end(ports));
  EXPECT_EQ(found.size(), 602U);
  EXPECT_TRUE(*found.begin() == 40000 && *found.rbegin() == 50000);
  const std::string lines = told(5, kPortReserved, nullptr, -EADDRNOTAVAIL);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 602 / 4 + 602);
}

TEST_F(BindTest, OnlyAPortInUseLeadsToAnotherTry) {
  EXPECT_THAT(printed(8, [] { (void)rpcport_add_range(41000, 41001, kPortService); }),
              HasSubstr("Adding range 41000-41001 to \"service\" port type.\n"));
  for (int i = 0; i < 2; ++i) {
    EXPECT_THAT(told(5, kPortService, nullptr, 0), HasSubstr("socket bound to port 4100"));
  }
  EXPECT_THAT(told(3, kPortService, &kElsewhere, -EADDRNOTAVAIL),
              HasSubstr("(errno 99) Cannot assign requested address\n"));
  const std::string lines = told(5, kPortService, nullptr, -EADDRNOTAVAIL);
  EXPECT_THAT(lines, HasSubstr(", Address already in use\n, retrying..."));
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 9) << "seven at random, and each";
  // A client tells of it, and leaves no socket.
  const int next = dup(0);
  close(next);
  EXPECT_EXIT(_exit(rpcport_add_range(41000, 41001, kPortConnection) == 0 &&
                            rpc_open_client_socket(SOCK_DGRAM, 0) == -1 && dup(0) == next
                        ? __get_rpc_createerr()->cause.error_number
                        : 0),
              testing::ExitedWithCode(EADDRNOTAVAIL),
              "Cannot bind socket to connection port in configured port range on system ");
}

}  // namespace

#include "rpc/transport/brsvport.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <set>

#include "liblocal/messages/debug.h"
#include "tests/lab.h"
#include "tests/threads.h"

namespace {

// 192.0.2.99, which is not one of this host's.
const sockaddr_in kElsewhere = {AF_INET, 0, {htonl(0xC0000263)}, {}};

// Sockets that stay bound until the test ends.
class BindTest : public testing::Test {
 protected:
  void TearDown() override {
    for (int descriptor : open_) close(descriptor);
  }

  // The port that a new socket was bound to; the negative errno when it was not.
  int bind_new(int32_t type, const sockaddr_in* address = nullptr) {
    int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    {
      std::lock_guard lock(mutex_);
      open_.push_back(descriptor);
    }
    if (__brix_bindresvport(descriptor, address, type) != 0) return -errno;
    sockaddr_in own{};
    socklen_t size = sizeof own;
    getsockname(descriptor, reinterpret_cast<sockaddr*>(&own), &size);
    return ntohs(own.sin_port);
  }

  std::mutex mutex_;
  std::vector<int> open_;
};

TEST_F(BindTest, WithoutRangesTheSystemChooses) {
  EXPECT_GE(bind_new(kPortConnection), 1024);
  EXPECT_EQ(bind_new(kPortConnection, &kElsewhere), -EADDRNOTAVAIL);
  for (int32_t type : {-1, 3}) EXPECT_EQ(bind_new(type), -EINVAL);
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
  EXPECT_GE(*found.begin(), 40000);
  EXPECT_EQ(*found.rbegin(), 50000);
  EXPECT_EQ(bind_new(kPortReserved), -EADDRNOTAVAIL);
}

TEST_F(BindTest, OnlyAPortInUseLeadsToAnotherTry) {
  ASSERT_EQ(rpcport_add_range(41000, 41001, kPortService), 0);
  for (int i = 0; i < 2; ++i) ASSERT_GE(bind_new(kPortService), 41000);
  // Each try is a line.
  auto tries = [this](const sockaddr_in* address) {
    testing::internal::CaptureStderr();
    Debug = 5;
    EXPECT_EQ(bind_new(kPortService, address), -EADDRNOTAVAIL);
    Debug = 0;
    const std::string lines = testing::internal::GetCapturedStderr();
    return std::count(lines.begin(), lines.end(), '\n');
  };
  EXPECT_EQ(tries(&kElsewhere), 1);
  EXPECT_EQ(tries(nullptr), 9) << "seven at random, then each of the two";
}

}  // namespace

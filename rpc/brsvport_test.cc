#include "rpc/brsvport.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>

#include "liblocal/debug.h"
#include "tests/failing_malloc.h"
#include "tests/lab.h"

namespace {

// Sockets that stay bound until the test ends.
class BindTest : public LabTest {
 protected:
  void TearDown() override {
    for (int descriptor : open_) close(descriptor);
  }

  // The port that a new socket was bound to; the negative errno when it was not.
  int bind_new(int32_t type, const sockaddr_in* address = nullptr) {
    int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    open_.push_back(descriptor);
    errno = 0;
    if (__brix_bindresvport(descriptor, address, type) != 0) return -errno;
    sockaddr_in own{};
    socklen_t size = sizeof own;
    getsockname(descriptor, reinterpret_cast<sockaddr*>(&own), &size);
    return ntohs(own.sin_port);
  }

  std::vector<int> open_;
};

TEST_F(BindTest, WithoutRangesTheSystemChooses) {
  EXPECT_EQ(rpcport_count(kPortConnection), 0);
  EXPECT_GE(bind_new(kPortConnection), 1024);
  sockaddr_in address{};
  address.sin_family = AF_INET6;
  EXPECT_EQ(bind_new(kPortService, &address), -EPFNOSUPPORT);
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(0xC0000263);  // not one of this host's
  EXPECT_EQ(bind_new(kPortService, &address), -EADDRNOTAVAIL);
  for (int32_t type : {-1, 3}) EXPECT_EQ(bind_new(type), -EINVAL);
}

TEST_F(BindTest, EveryPortOfTheRangesIsFound) {
  testing::internal::CaptureStderr();
  Debug = 8;
  ASSERT_EQ(rpcport_add_range(40000, 40600, kPortReserved), 0);
  Debug = 0;
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::EndsWith("Adding range 40000-40600 to \"reserved\" port type.\n"));
  ASSERT_EQ(rpcport_add_range(50000, 50000, kPortReserved), 0);
  EXPECT_EQ(rpcport_count(kPortReserved), 602);
  EXPECT_EQ(rpcport_count(kPortService), 0);
  std::set<int> ports;
  for (int i = 0; i < 602; ++i) ports.insert(bind_new(kPortReserved));
  EXPECT_EQ(ports.size(), 602U);
  EXPECT_GE(*ports.begin(), 40000);
  EXPECT_EQ(*ports.rbegin(), 50000);
  EXPECT_EQ(bind_new(kPortReserved), -EADDRNOTAVAIL);
}

TEST_F(BindTest, OnlyAPortInUseLeadsToAnotherTry) {
  ASSERT_EQ(rpcport_add_range(41000, 41001, kPortService), 0);
  sockaddr_in elsewhere{};
  elsewhere.sin_family = AF_INET;
  elsewhere.sin_addr.s_addr = htonl(0xC0000263);
  ASSERT_GE(bind_new(kPortService), 41000);
  ASSERT_GE(bind_new(kPortService), 41000);
  testing::internal::CaptureStderr();
  Debug = 5;
  EXPECT_EQ(bind_new(kPortService, &elsewhere), -EADDRNOTAVAIL);
  std::string once = testing::internal::GetCapturedStderr();
  EXPECT_THAT(once, testing::ContainsRegex("socket bind failed, port 4100[01], \\(errno 99\\) "));
  EXPECT_EQ(std::count(once.begin(), once.end(), '\n'), 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(bind_new(kPortService), -EADDRNOTAVAIL);
  Debug = 0;
  // Seven at random, then each of the two.
  std::string in_use = testing::internal::GetCapturedStderr();
  size_t tries = 0;
  for (size_t at = 0; (at = in_use.find("retrying...", at)) != std::string::npos; ++at) ++tries;
  EXPECT_EQ(tries, 9U);
}

TEST_F(BindTest, RangesThatAreNone) {
  EXPECT_EQ(rpcport_add_range(0, 5, kPortService), -1);
  EXPECT_EQ(rpcport_add_range(6, 5, kPortService), -1);
  EXPECT_EQ(rpcport_add_range(5, 6, 3), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(rpcport_count(3), 0);
  FailingMalloc failing(0);
  EXPECT_EQ(rpcport_add_range(5, 6, kPortService), -1);
  EXPECT_EQ(errno, ENOMEM);
}

}  // namespace

#include "rpc/transport/brsvport.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <set>

#include "tests/machine.h"
#include "tests/work.h"

namespace {

using testing::HasSubstr;

const sockaddr_in kElsewhere = {AF_INET, 0, {htonl(0xC0000263)}, {}};  // not this host's

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
    return bound != 0 ? -errno : machine::port_of(descriptor);
  }

  std::atomic<size_t> count_ = 0;
  int open_[700];
};

TEST_F(BindTest, WithoutRangesTheSystemChooses) {
  EXPECT_GE(bind_new(kPortConnection), 1024);
  EXPECT_EQ(bind_new(kPortConnection, &kElsewhere), -EADDRNOTAVAIL);
}

TEST_F(BindTest, RefusedArguments) {
  const sockaddr_in foreign = {AF_INET6, 0, {}, {}};
  EXPECT_EQ(bind_new(kPortConnection, &foreign), -EPFNOSUPPORT);
  EXPECT_EQ(bind_new(3), -EINVAL);
  EXPECT_EQ(rpcport_add_range(3, 2, kPortService), -1);
}

TEST_F(BindTest, ThreadsFindEveryPortOfTheRanges) {
  EXPECT_EQ(rpcport_add_range(40000, 40600, kPortReserved), 0);
  EXPECT_EQ(rpcport_add_range(50000, 50000, kPortReserved), 0);
  EXPECT_EQ(rpcport_count(kPortReserved), 602);
  int ports[602];
  in_threads(7, [&](int thread) {
    for (int i = 0; i < 86; ++i) ports[thread * 86 + i] = bind_new(kPortReserved);
  });
  const std::set<int> found(std::begin(ports), std::end(ports));
  EXPECT_EQ(found.size(), 602U);
  EXPECT_EQ(*found.begin(), 40000) << "none failed";
}

TEST_F(BindTest, OnlyAPortInUseLeadsToAnotherTry) {
  EXPECT_EQ(rpcport_add_range(41000, 41001, kPortService), 0);
  EXPECT_EQ(bind_new(kPortService, &kElsewhere), -EADDRNOTAVAIL);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(bind_new(kPortService) / 10, 4100);
  const std::string all = printed(5, [this] { EXPECT_EQ(bind_new(kPortService), -EADDRNOTAVAIL); });
  EXPECT_THAT(all, HasSubstr(", Address already in use\n, retrying..."));
  EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 9) << "seven at random, and each";
}

}  // namespace

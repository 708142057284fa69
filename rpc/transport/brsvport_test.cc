#include "rpc/transport/brsvport.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <vector>

#include "tests/machine.h"
#include "tests/work.h"

namespace {

const sockaddr_in kElsewhere = {AF_INET, 0, {htonl(0xC0000263)}, {}};  // not this host's

// Sockets that stay bound until the test ends.
class BindTest : public testing::Test {
 protected:
  void TearDown() override {
    for (int descriptor : open_) close(descriptor);
  }

  // The port that a new socket was bound to; the negative errno when it was not.
  int bind_new(int32_t type, const sockaddr_in* address = nullptr) {
    open_.push_back(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int bound = __brix_bindresvport(open_.back(), address, type);
    return bound != 0 ? -errno : machine::port_of(open_.back());
  }

  std::vector<int> open_;
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

TEST_F(BindTest, EveryPortOfTheRangesIsFound) {
  EXPECT_EQ(rpcport_add_range(40000, 40060, kPortReserved), 0);
  EXPECT_EQ(rpcport_add_range(50000, 50000, kPortReserved), 0);
  EXPECT_EQ(rpcport_count(kPortReserved), 62);
  EXPECT_EQ(bind_new(kPortReserved, &kElsewhere), -EADDRNOTAVAIL);
  std::set<int> found;
  const std::string first = printed(5, [&] { found.insert(bind_new(kPortReserved)); });
  EXPECT_THAT(first, testing::HasSubstr("socket bound to port "));
  for (int i = 1; i < 62; ++i) found.insert(bind_new(kPortReserved));
  EXPECT_EQ(found.size(), 62U);
  EXPECT_EQ(*found.begin(), 40000) << "none failed";
  EXPECT_EQ(*std::next(found.begin(), 60), 40060);
  EXPECT_EQ(*found.rbegin(), 50000);
  const std::string lines = printed(5, [&] { bind_new(kPortReserved); });
  EXPECT_THAT(lines, testing::HasSubstr("port 50000, Address already in use\n, retrying..."));
}

}  // namespace

#include "rpc/transport/brsvport.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <set>

#include "tests/fakes.h"
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
    if (bound == 0) return machine::port_of(open_.back());
    EXPECT_EQ(bound, -1);
    return -errno;
  }

  // What binding a new socket writes at a debug level.
  std::string debug_lines(int level, int32_t type, const sockaddr_in* address = nullptr) {
    return printed(level, [&] { (void)bind_new(type, address); });
  }

  std::vector<int> open_;
};

TEST_F(BindTest, WithoutRangesTheSystemChooses) {
  EXPECT_GE(bind_new(kPortConnection), 1024);
  EXPECT_EQ(bind_new(kPortConnection, &kElsewhere), -EADDRNOTAVAIL);
  EXPECT_EQ(debug_lines(5, kPortConnection), "kivtrap: socket bound to arbitrary port\n");
  EXPECT_EQ(debug_lines(3, kPortConnection, &kElsewhere),
            "kivtrap: socket bind to arbitrary port failed (errno 99)\n");
}

TEST_F(BindTest, EveryPortOfTheRangesIsFound) {
  auto add_range = [] { EXPECT_EQ(rpcport_add_range(40000, 40001, 2), 0); };
  EXPECT_EQ(printed(8, add_range),
            "kivtrap: Adding range 40000-40001 to \"reserved\" port type.\n");
  EXPECT_EQ(rpcport_add_range(50000, 50000, kPortReserved), 0);
  EXPECT_EQ(rpcport_add_range(0, 2, kPortReserved), -1);
  for (int type : {-1, 3}) {
    EXPECT_EQ(rpcport_add_range(1, 2, type), -1);
    EXPECT_EQ(rpcport_count(type), 0);
    EXPECT_EQ(bind_new(type), -EINVAL);
  }
  EXPECT_EQ(rpcport_add_range(3, 2, kPortReserved), -1);
  EXPECT_EQ(rpcport_count(kPortReserved), 3);
  EXPECT_THAT(debug_lines(3, kPortReserved, &kElsewhere),
              testing::EndsWith(", (errno 99) Cannot assign requested address\n"));
  std::set<int> found;
  for (int i = 0; i < 4; ++i) found.insert(bind_new(kPortReserved));
  EXPECT_THAT(found, testing::ElementsAre(-EADDRNOTAVAIL, 40000, 40001, 50000));
}

TEST_F(BindTest, ManyPortsAreTriedAtRandomFirst) {
  ASSERT_EQ(rpcport_add_range(45000, 45000, kPortService), 0);
  EXPECT_EQ(debug_lines(5, kPortService), "kivtrap: socket bound to port 45000\n");
  for (auto [ports, tries] : {std::pair{500, 507}, {501, 626}, {2856, 3569}}) {
    while (rpcport_count(kPortService) < ports) {
      ASSERT_EQ(rpcport_add_range(45000, 45000, kPortService), 0);
    }
    const std::string lines = debug_lines(5, kPortService);
    EXPECT_TRUE(lines.starts_with(
        "kivtrap: socket bind failed, port 45000, Address already in use\n, retrying...kivtrap: "));
    EXPECT_EQ(std::ranges::count(lines, '\n'), tries);
  }
}

}  // namespace

#include "rpc/client/rpcvarp.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "tests/failing_malloc.h"

namespace {

struct Transport {
  rpc_server_transport header;
  int number;
};

std::vector<int> destroyed;

rpc_server_transport* new_transport(int number) {
  auto* transport = new Transport{{malloc(100), nullptr}, number};
  transport->header.destroy = [](rpc_server_transport* header) {
    EXPECT_EQ(header->extra, nullptr);
    auto* whole = reinterpret_cast<Transport*>(header);
    destroyed.push_back(whole->number);
    delete whole;
  };
  return &transport->header;
}

void use_all() {
  destroyed.clear();
  rpc_t_varp* block = get_rpc_t_varp();
  EXPECT_EQ(Global_rpc_t_varp, block) << "the newest";
  for (int slot : {65535, 3, 255, 256})
    EXPECT_TRUE(rpc_set_server_transport(slot, new_transport(slot)));
  for (int again = 0; again < 2; ++again) {
    EXPECT_TRUE(rpc_set_server_transport(7, block->transports[0][7])) << "stays";
    EXPECT_TRUE(rpc_set_server_transport(7, new_transport(again)));
  }
  EXPECT_TRUE(rpc_set_server_transport(7, nullptr));
  for (int slot : {-1, 65536}) EXPECT_FALSE(rpc_set_server_transport(slot, nullptr));
  for (int i = 0; i < 3; ++i) {
    block->port_cache =
        new (malloc(sizeof(rpc_port_entry))) rpc_port_entry{1, 2, 3, 4, block->port_cache};
    block->mappers = new (malloc(sizeof(rpc_started_mapper))) rpc_started_mapper{5, block->mappers};
  }
  FailingMalloc nothing(0);
  EXPECT_FALSE(rpc_set_server_transport(1000, nullptr));
}

TEST(RpcVarp, ReleasesWhatAThreadUsed) {
  EXPECT_EQ(pieces_left_by([] { std::thread(use_all).join(); }), 0);
  EXPECT_EQ(Global_rpc_t_varp, nullptr);
  EXPECT_EQ(destroyed, (std::vector{0, 1, 3, 255, 256, 65535}));
}

TEST(RpcVarp, SettingTheCreationErrorKeepsErrno) {
  std::thread([] {
    errno = EXDEV;
    rpc_set_createerr(RPC_SYSTEMERROR, ENOSPC);  // makes the thread's block
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(__get_rpc_createerr()->cause.error_number, ENOSPC);
    EXPECT_EQ(__get_rpc_createerr()->cause.status, RPC_SUCCESS);
  }).join();
}

}  // namespace

#include "rpc/rpcvarp.h"

#include <fcntl.h>

#include <cerrno>

#include "liblocal/vx_mutex.h"
#include "rpc/common.h"
#include "tests/failing_malloc.h"
#include "tests/lab.h"
#include "tests/threads.h"

namespace {

struct Transport {
  rpc_server_transport header;
  int number;
};

std::vector<int> destroyed;

rpc_server_transport* new_transport(int number) {
  auto* transport = new Transport{{malloc(100), nullptr}, number};
  transport->header.destroy = [](rpc_server_transport* header) {
    auto* whole = reinterpret_cast<Transport*>(header);
    destroyed.push_back(whole->number);
    delete whole;
  };
  return &transport->header;
}

TEST(RpcVarp, ReleasesWhatAThreadUsed) {
  destroyed.clear();
  std::thread([] {
    rpc_t_varp* block = get_rpc_t_varp();
    EXPECT_EQ(get_rpc_t_varp(), block);
    EXPECT_EQ(__get_rpc_createerr(), &block->create_error);
    for (int slot : {65535, 3, 70})
      EXPECT_TRUE(rpc_set_server_transport(slot, new_transport(slot)));
    for (int slot : {-1, 65536}) EXPECT_FALSE(rpc_set_server_transport(slot, nullptr));
    for (int i = 0; i < 3; ++i) {
      block->port_cache =
          new (malloc(sizeof(rpc_port_entry))) rpc_port_entry{1, 2, 3, 4, block->port_cache};
      block->mappers =
          new (malloc(sizeof(rpc_started_mapper))) rpc_started_mapper{5, block->mappers};
    }
  }).join();
  EXPECT_EQ(destroyed, (std::vector{3, 70, 65535}));
}

TEST(RpcVarp, ReportsTransportsWithoutMemory) {
  std::thread([] {
    get_rpc_t_varp();
    FailingMalloc nothing(0);
    EXPECT_FALSE(rpc_set_server_transport(3, nullptr));
  }).join();
}

TEST(RpcVarp, KeepsTwoLocksForTheProcess) {
  rpc_p_varp* block = get_rpc_p_varp();
  in_threads(4, [block](int) { EXPECT_EQ(get_rpc_p_varp(), block); });
  EXPECT_EQ(Global_rpc_p_varp.load(), block);
  EXPECT_EQ(vx_mutex_lock(block->lock), 0);
  EXPECT_EQ(vx_mutex_lock(block->transport_lock), 0);
  EXPECT_EQ(vx_mutex_unlock(block->transport_lock), 0);
  EXPECT_EQ(vx_mutex_unlock(block->lock), 0);
  EXPECT_EQ(block->pmap_cache_off, 0);
}

TEST(RpcCommon, KnowsDescriptors) {
  EXPECT_GT(__brix_rpc_dtablesize(), 2);
  EXPECT_LE(__brix_rpc_dtablesize(), 65536);
  int descriptor = open("/dev/null", O_RDONLY);
  EXPECT_EQ(rpc_close(descriptor), 0);
  EXPECT_EQ(rpc_close(descriptor), -1);
  EXPECT_EQ(errno, EBADF);
}

}  // namespace

#include "rpc/handle/rpcvarp.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstdlib>

#include "liblocal/base/vx_mutex.h"
#include "liblocal/base/xmalloc.h"
#include "rpc/xdr/io_switches.h"

namespace {

// Node is a singly linked record from malloc.
template <typename Node>
void free_list(Node** head) {
  while (*head != nullptr) {
    Node* node = *head;
    *head = node->next;
    free(node);
  }
}

void destroy_transport(rpc_server_transport** slot) {
  rpc_server_transport* transport = *slot;
  if (transport == nullptr) return;
  *slot = nullptr;
  free(transport->extra);
  transport->extra = nullptr;
  transport->destroy(transport);
}

}  // namespace

VARP_DEFINE_THREAD_BLOCK(rpc)
VARP_DEFINE_PROCESS_BLOCK(rpc)
std::atomic<rpc_t_varp*> Global_rpc_t_varp;

rpc_t_varp* rpc_t_init() {
  (void)rpc_get_io_switches();  // settled with the process's first block
  return Global_rpc_t_varp = static_cast<rpc_t_varp*>(_varp_map(sizeof(rpc_t_varp)));
}

void rpc_t_clean(void* memory) {
  auto* block = static_cast<rpc_t_varp*>(memory);
  if (block->transports != nullptr) {
    for (rpc_server_transport*& slot : block->transports->slots) destroy_transport(&slot);
    free(block->transports);
  }
  cleanup_mappers(block);
  rpc_t_varp* newest = block;
  Global_rpc_t_varp.compare_exchange_strong(newest, nullptr);
  munmap(block, sizeof *block);
}

void rpc_p_init() {
  auto* block = static_cast<rpc_p_varp*>(_varp_allocate(sizeof(rpc_p_varp)));
  while ((block->lock = vx_mutex_new()) == nullptr) _vx_pause_ms(kBlockPauseMs);
  Global_rpc_p_varp.store(block, std::memory_order_release);
}

void rpc_p_clean(void* memory) {
  auto* block = static_cast<rpc_p_varp*>(memory);
  vx_mutex_destroy(block->lock);
  free(block);
}

rpc_createerr* __get_rpc_createerr() { return &get_rpc_t_varp()->create_error; }

void rpc_set_createerr(clnt_stat status, int32_t error_number) {
  const int saved_errno = errno;  // making the block looks for files
  rpc_createerr* error = __get_rpc_createerr();
  errno = saved_errno;
  *error = {};
  error->status = status;
  error->cause.error_number = error_number;
}

bool rpc_set_server_transport(int32_t descriptor, rpc_server_transport* transport) {
  if (descriptor < 0 || descriptor >= kServerTransportSlots) return false;
  rpc_t_varp* block = get_rpc_t_varp();
  if (block->transports == nullptr) {
    void* slots = xcalloc(1, sizeof(rpc_server_transports));
    block->transports = static_cast<rpc_server_transports*>(slots);
  }
  rpc_server_transport** slot = &block->transports->slots[descriptor];
  if (*slot != transport) destroy_transport(slot);
  *slot = transport;
  return true;
}

void cleanup_mappers(rpc_t_varp* block) {
  free_list(&block->port_cache);
  free_list(&block->mappers);
}

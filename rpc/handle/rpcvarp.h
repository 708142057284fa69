// The variable blocks of the RPC runtime (see liblocal/base/varp.h): what it keeps per
// thread and for the process.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "liblocal/base/text_sizes.h"
#include "liblocal/base/varp.h"
#include "rpc/messages/rpc_err.h"

struct vx_mutex;

constexpr int32_t kServerTransportSlots = 65536;  //!< one for each descriptor

/// Why a client could not be made: the status, and its cause (an error number for
/// RPC_SYSTEMERROR, the failed call's status for RPC_PMAPFAILURE).
struct rpc_createerr {
  clnt_stat status;
  rpc_err cause;
};

/// One answer of a port mapper.
struct rpc_port_entry {
  unsigned long program;
  unsigned long version;
  unsigned long protocol;
  unsigned long port;
  rpc_port_entry* next;
};

/// A port mapper that this thread started.
struct rpc_started_mapper {
  pid_t process;
  rpc_started_mapper* next;
};

/// The server side of a connection or socket; its own record begins with this.
struct rpc_server_transport {
  void* extra;  //!< a further buffer from malloc, freed before the transport is destroyed
  void (*destroy)(rpc_server_transport* transport);
};

/// A slot for each descriptor, which owns what it holds.
struct rpc_server_transports {
  rpc_server_transport* slots[kServerTransportSlots];
};

/// What the runtime keeps for each thread, zeroed at first.
struct rpc_t_varp {
  rpc_createerr create_error;
  char text[kMessageSize];            //!< c_perror.h
  rpc_port_entry* port_cache;         //!< newest first; owned, each from malloc
  bool port_cache_read;               //!< once the environment was read into it
  rpc_started_mapper* mappers;        //!< owned, each from malloc
  rpc_server_transports* transports;  //!< null until one is used; owned
};

/// What the runtime keeps for the process.
struct rpc_p_varp {
  vx_mutex* lock;                    //!< "the process lock": the runtime's shared tables
  std::atomic<bool> pmap_cache_off;  //!< port caches are neither read nor filled
};

VARP_DECLARE_THREAD_BLOCK(rpc)
VARP_DECLARE_PROCESS_BLOCK(rpc)

/// The most recently created thread block; null after the end of its thread.
extern std::atomic<rpc_t_varp*> Global_rpc_t_varp;

/// Why the calling thread's last attempt to make a client failed; success does not
/// clear it. Never null.
[[nodiscard]] rpc_createerr* __get_rpc_createerr();

/// Makes `status` the calling thread's creation error, with `error_number` as its
/// cause (0: none). Keeps `errno`.
void rpc_set_createerr(clnt_stat status, int32_t error_number);

/// Puts `transport` (null: none) into the calling thread's slot of `descriptor`, which
/// owns it until another takes its place or the thread ends. False for a descriptor
/// without a slot.
[[nodiscard]] bool rpc_set_server_transport(int32_t descriptor, rpc_server_transport* transport);

/// Frees the port cache and the list of started mappers of `block`, leaving both empty.
void cleanup_mappers(rpc_t_varp* block);

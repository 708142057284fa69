// Variable blocks ("varp"): the state that a module keeps per thread or per process, and the
// registry that releases the per-process blocks at exit.
//
// A module M describes its blocks as structures M_t_varp and M_p_varp, writes M_t_init,
// M_t_clean, M_p_init and M_p_clean, and says once in its header
//
//   VARP_DECLARE_THREAD_BLOCK(M)
//   VARP_DECLARE_PROCESS_BLOCK(M)
//
// and once in its source the same with DEFINE. That gives it
//
//   get_M_t_varp()     the calling thread's block, made on first use; never null
//   get_M_p_varp()     the process's block, made on first use; null once the clean-up at
//                      exit has released it
//   Global_M_p_varp    the same, null until made; hot paths read it first
//
// A thread's blocks are released when the thread ends, those of the exiting thread by the
// exit list, the per-process blocks by the registry, newest registration first.
//
// Thread safety: a thread block is used by its own thread only. Blocks are made safely when
// threads race. Each module guards the members of its process block itself.
#pragma once

#include <atomic>
#include <cstddef>

#include "liblocal/base/vx_atexit.h"
#include "liblocal/base/vx_once.h"
#include "liblocal/base/vx_threadstorage.h"

/// Registers the per-process block `data` for `clean` at process exit; a null `clean` is
/// skipped then. Waits for memory. `clean` is called under the registry's lock: it must not
/// wait for a thread that calls varp_add_data. What is registered after the clean-up at exit
/// is never cleaned. Thread safe.
void varp_add_data(void* data, void (*clean)(void* data));

/// 1 once the registry's clean-up at exit has begun, else 0. Thread safe.
[[nodiscard]] int is_proc_exiting();

/// Memory for a block of the process, zeroed, never null: a failed allocation is tried again
/// every kBlockPauseMs. Release it with free.
[[nodiscard]] void* _varp_allocate(size_t size);

/// _varp_allocate for a block of a thread, which is released with munmap. A mapping costs only
/// the pages that the thread uses, which a run of the command feels.
[[nodiscard]] void* _varp_map(size_t size);

/// A new key for the thread blocks of `module`. When there is none left, all streams are
/// flushed and the process ends with status 1, after a message on standard error.
[[nodiscard]] vx_threadstorage* _varp_new_key(const char* module, void (*clean)(void* block));

/// Makes `block` the calling thread's value of `key`, trying again as _varp_allocate.
void _varp_keep(vx_threadstorage* key, void* block);

// The flags and pointers are atomic because they are read without a lock; only vx_once
// decides which thread makes a block.

/// Declares the thread block of module `M`, a struct M_t_varp, with its get_M_t_varp.
/// `M` makes and releases blocks by its own M_t_init and M_t_clean.
#define VARP_DECLARE_THREAD_BLOCK(M)         \
  extern vx_threadstorage* Key_##M##_t_varp; \
  extern vx_once_control once_##M##_t_varp;  \
  extern std::atomic<int> M##_t_needs_init;  \
  M##_t_varp* M##_t_init();                  \
  void M##_t_clean(void* block);             \
  M##_t_varp* get_##M##_t_varp();

/// Defines what VARP_DECLARE_THREAD_BLOCK declares but for M_t_init and M_t_clean.
#define VARP_DEFINE_THREAD_BLOCK(M)                                           \
  vx_threadstorage* Key_##M##_t_varp = nullptr;                               \
  vx_once_control once_##M##_t_varp;                                          \
  std::atomic<int> M##_t_needs_init = 1;                                      \
  static void M##_t_clean_own() {                                             \
    if (M##_t_needs_init != 0) return;                                        \
    void* own = vx_threadstorage_get(Key_##M##_t_varp);                       \
    if (own == nullptr) return;                                               \
    M##_t_clean(own);                                                         \
    vx_threadstorage_set(Key_##M##_t_varp, nullptr);                          \
  }                                                                           \
  static void M##_t_create_key() {                                            \
    Key_##M##_t_varp = _varp_new_key(#M, M##_t_clean);                        \
    vx_atexit(M##_t_clean_own);                                               \
    M##_t_needs_init = 0;                                                     \
  }                                                                           \
  M##_t_varp* get_##M##_t_varp() {                                            \
    if (M##_t_needs_init != 0) vx_once(&once_##M##_t_varp, M##_t_create_key); \
    void* own = vx_threadstorage_get(Key_##M##_t_varp);                       \
    if (own == nullptr) _varp_keep(Key_##M##_t_varp, own = M##_t_init());     \
    return static_cast<M##_t_varp*>(own);                                     \
  }

/// VARP_DECLARE_THREAD_BLOCK for the block of the process, M_p_varp.
#define VARP_DECLARE_PROCESS_BLOCK(M)                  \
  extern std::atomic<M##_p_varp*> Global_##M##_p_varp; \
  extern vx_once_control once_##M##_p_varp;            \
  extern std::atomic<int> M##_p_needs_init;            \
  void M##_p_init();                                   \
  void M##_p_clean(void* block);                       \
  M##_p_varp* get_##M##_p_varp();

/// Defines what VARP_DECLARE_PROCESS_BLOCK declares but for M_p_init and M_p_clean. It follows
/// VARP_DEFINE_THREAD_BLOCK of the same module.
#define VARP_DEFINE_PROCESS_BLOCK(M)                                      \
  std::atomic<M##_p_varp*> Global_##M##_p_varp = nullptr;                 \
  vx_once_control once_##M##_p_varp;                                      \
  std::atomic<int> M##_p_needs_init = 1;                                  \
  static void M##_p_release(void* block) {                                \
    M##_t_clean_own();                                                    \
    M##_p_clean(block);                                                   \
    Global_##M##_p_varp = nullptr;                                        \
  }                                                                       \
  static void M##_p_create() {                                            \
    M##_p_init();                                                         \
    varp_add_data(Global_##M##_p_varp, M##_p_release);                    \
    M##_p_needs_init = 0;                                                 \
  }                                                                       \
  M##_p_varp* get_##M##_p_varp() {                                        \
    if (M##_p_needs_init != 0) vx_once(&once_##M##_p_varp, M##_p_create); \
    return Global_##M##_p_varp;                                           \
  }

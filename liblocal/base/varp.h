// Variable blocks ("varp"): the state that a module keeps per thread or per
// process, and the registry that releases the per-process blocks at exit.
//
// A module M describes its blocks as structures M_t_varp and M_p_varp, writes
// M_t_init/M_t_clean and M_p_init/M_p_clean, and says once in its header
//
//   VARP_DECLARE_THREAD_BLOCK(M)
//   VARP_DECLARE_PROCESS_BLOCK(M)
//
// and once in its source the same with DEFINE. That gives it
//
//   get_M_t_varp()     the calling thread's block, made on first use; never null
//   get_M_p_varp()     the process's block, made on first use; null once the exit-time
//                      cleanup has released it
//   Global_M_p_varp    the same, null until made: what hot paths read first
//
// A thread's block goes when the thread ends; the exiting thread's blocks go by the
// exit list, the per-process blocks by the registry, newest registration first.
//
// Thread safety: a thread block is touched by its own thread only. Making a block
// is safe under races. What guards the members of a process block is the module's
// own matter.
#pragma once

#include <atomic>
#include <cstddef>

#include "liblocal/base/vx_atexit.h"
#include "liblocal/base/vx_once.h"
#include "liblocal/base/vx_threadstorage.h"

/// Registers the per-process block `data` for `clean` at process exit; a null
/// `clean` is skipped then. Waits for memory. The cleaner runs under the registry's
/// lock: it must not wait for a thread that calls varp_add_data. What is registered
/// after the exit-time cleanup has run is never cleaned. Thread safe.
void varp_add_data(void* data, void (*clean)(void* data));

/// 1 once the exit-time cleanup of the registry has begun, else 0. Thread safe.
[[nodiscard]] int is_proc_exiting();

/// What the registry prints its one message with; print.cc, which is above, fills the
/// slot when the program is linked.
extern void (*const varp_print_error)(const char* format, ...);

/// Memory for a block, zeroed, never null: a failed allocation is tried again every
/// kBlockPauseMs.
[[nodiscard]] void* _varp_allocate(size_t size);

/// _varp_allocate for a block without a constructor.
template <typename Block>
[[nodiscard]] Block* varp_new_block() {
  return static_cast<Block*>(_varp_allocate(sizeof(Block)));
}

/// A new key for the thread blocks of `module`. Without one the process ends with
/// status 1 and a message on standard error.
[[nodiscard]] vx_threadstorage* _varp_new_key(const char* module, void (*clean)(void* block));

/// Makes `block` the calling thread's value of `key`, trying again as _varp_allocate.
void _varp_keep(vx_threadstorage* key, void* block);

/// The behaviour of every thread block, over the parts that its module gives it.
template <auto& kModule, auto& key, auto& once, auto& needs_init, auto& init, auto& clean>
struct VarpThreadBlock {
  /// The calling thread's block, made on first use.
  static auto get() {
    using Block = decltype(init());
    if (needs_init.load(std::memory_order_acquire) != 0) vx_once(&once, create_key);
    if (void* own = vx_threadstorage_get(key); own != nullptr) return static_cast<Block>(own);
    Block made = init();
    _varp_keep(key, made);
    return made;
  }

  /// Releases the calling thread's block, if it has one.
  static void clean_own() {
    if (needs_init.load(std::memory_order_acquire) != 0) return;
    void* own = vx_threadstorage_get(key);
    if (own == nullptr) return;
    clean(own);
    vx_threadstorage_set(key, nullptr);
  }

 private:
  static void create_key() {
    key = _varp_new_key(kModule, clean);
    vx_atexit(clean_own);
    needs_init.store(0, std::memory_order_release);
  }
};

/// The behaviour of every process block; `Own` is its module's thread block.
template <typename Own, auto& global, auto& once, auto& needs_init, auto& init, auto& clean>
struct VarpProcessBlock {
  /// The process's block, made on first use.
  static auto get() {
    if (needs_init.load(std::memory_order_acquire) != 0) vx_once(&once, create);
    return global.load(std::memory_order_acquire);
  }

 private:
  static void create() {
    init();
    varp_add_data(global.load(std::memory_order_relaxed), release);
    needs_init.store(0, std::memory_order_release);
  }
  static void release(void* block) {
    Own::clean_own();
    clean(block);
    global.store(nullptr, std::memory_order_release);
  }
};

// The flags and pointers are atomic because they are read without a lock; vx_once
// alone decides who makes a block.

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
#define VARP_DEFINE_THREAD_BLOCK(M)                                                    \
  vx_threadstorage* Key_##M##_t_varp = nullptr;                                        \
  vx_once_control once_##M##_t_varp;                                                   \
  std::atomic<int> M##_t_needs_init = 1;                                               \
  static constexpr char M##_module[] = #M;                                             \
  using M##_t_block = VarpThreadBlock<M##_module, Key_##M##_t_varp, once_##M##_t_varp, \
                                      M##_t_needs_init, M##_t_init, M##_t_clean>;      \
  M##_t_varp* get_##M##_t_varp() { return M##_t_block::get(); }

/// VARP_DECLARE_THREAD_BLOCK for the block of the process, M_p_varp.
#define VARP_DECLARE_PROCESS_BLOCK(M)                  \
  extern std::atomic<M##_p_varp*> Global_##M##_p_varp; \
  extern vx_once_control once_##M##_p_varp;            \
  extern std::atomic<int> M##_p_needs_init;            \
  void M##_p_init();                                   \
  void M##_p_clean(void* block);                       \
  M##_p_varp* get_##M##_p_varp();

// Stands after VARP_DEFINE_THREAD_BLOCK of the same module.
#define VARP_DEFINE_PROCESS_BLOCK(M)                                                               \
  std::atomic<M##_p_varp*> Global_##M##_p_varp = nullptr;                                          \
  vx_once_control once_##M##_p_varp;                                                               \
  std::atomic<int> M##_p_needs_init = 1;                                                           \
  M##_p_varp* get_##M##_p_varp() {                                                                 \
    return VarpProcessBlock<M##_t_block, Global_##M##_p_varp, once_##M##_p_varp, M##_p_needs_init, \
                            M##_p_init, M##_p_clean>::get();                                       \
  }

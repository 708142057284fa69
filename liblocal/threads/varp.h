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

#include "liblocal/threads/vx_atexit.h"
#include "liblocal/threads/vx_once.h"
#include "liblocal/threads/vx_threadstorage.h"

/// Registers the per-process block `data` for `clean` at process exit; a null
/// `clean` is skipped then. Waits for memory. The cleaner runs under the registry's
/// lock: it must not call varp_add_data or is_proc_exiting itself, nor wait for a
/// thread that does. What is registered after the exit-time cleanup has run is never
/// cleaned. Thread safe.
void varp_add_data(void* data, void (*clean)(void* data));

/// 1 once the exit-time cleanup of the registry has begun, else 0. Thread safe.
[[nodiscard]] int is_proc_exiting();

/// Names the printer of error messages, for the registry's one message; until then
/// it goes to standard error as it is. Thread safe.
void varp_set_error_printer(void (*print)(const char* text));

/// A new key for the thread blocks of `module`. Without one the process ends with
/// status 1 and a message on standard error.
[[nodiscard]] vx_threadstorage* _varp_new_key(const char* module, void (*clean)(void* block));

/// The behaviour of every thread block; `M` names the parts of one module.
template <typename M>
struct VarpThreadBlock {
  static typename M::Block* get() {
    if (M::needs_init().load(std::memory_order_acquire) != 0) vx_once(M::once(), create_key);
    void* block = vx_threadstorage_get(M::key());
    if (block == nullptr) {
      block = M::init();
      vx_threadstorage_set(M::key(), block);
    }
    return static_cast<typename M::Block*>(block);
  }

  /// Releases the calling thread's block, if it has one.
  static void clean_own() {
    if (M::needs_init().load(std::memory_order_acquire) != 0) return;
    void* block = vx_threadstorage_get(M::key());
    if (block == nullptr) return;
    M::clean(block);
    vx_threadstorage_set(M::key(), nullptr);
  }

 private:
  static void create_key() {
    M::key() = _varp_new_key(M::kModule, M::clean);
    vx_atexit(clean_own);
    M::needs_init().store(0, std::memory_order_release);
  }
};

/// The behaviour of every process block.
template <typename M>
struct VarpProcessBlock {
  static typename M::Block* get() {
    if (M::needs_init().load(std::memory_order_acquire) != 0) vx_once(M::once(), create);
    return M::global().load(std::memory_order_acquire);
  }

 private:
  static void create() {
    M::init();
    varp_add_data(M::global().load(std::memory_order_relaxed), clean);
    M::needs_init().store(0, std::memory_order_release);
  }
  static void clean(void* block) {
    VarpThreadBlock<typename M::Thread>::clean_own();
    M::clean(block);
    M::global().store(nullptr, std::memory_order_release);
  }
};

// The flags and pointers are atomic because they are read without a lock; vx_once
// alone decides who makes a block.

#define VARP_DECLARE_THREAD_BLOCK(M)         \
  extern vx_threadstorage* Key_##M##_t_varp; \
  extern vx_once_control once_##M##_t_varp;  \
  extern std::atomic<int> M##_t_needs_init;  \
  M##_t_varp* M##_t_init();                  \
  void M##_t_clean(void* block);             \
  M##_t_varp* get_##M##_t_varp();

#define VARP_DEFINE_THREAD_BLOCK(M)                                    \
  vx_threadstorage* Key_##M##_t_varp = nullptr;                        \
  vx_once_control once_##M##_t_varp;                                   \
  std::atomic<int> M##_t_needs_init = 1;                               \
  namespace {                                                          \
  struct M##_t_parts {                                                 \
    using Block = M##_t_varp;                                          \
    static constexpr const char* kModule = #M;                         \
    static vx_threadstorage*& key() { return Key_##M##_t_varp; }       \
    static vx_once_control* once() { return &once_##M##_t_varp; }      \
    static std::atomic<int>& needs_init() { return M##_t_needs_init; } \
    static Block* init() { return M##_t_init(); }                      \
    static void clean(void* block) { M##_t_clean(block); }             \
  };                                                                   \
  }                                                                    \
  M##_t_varp* get_##M##_t_varp() { return VarpThreadBlock<M##_t_parts>::get(); }

#define VARP_DECLARE_PROCESS_BLOCK(M)                  \
  extern std::atomic<M##_p_varp*> Global_##M##_p_varp; \
  extern vx_once_control once_##M##_p_varp;            \
  extern std::atomic<int> M##_p_needs_init;            \
  void M##_p_init();                                   \
  void M##_p_clean(void* block);                       \
  M##_p_varp* get_##M##_p_varp();

// Stands after VARP_DEFINE_THREAD_BLOCK of the same module.
#define VARP_DEFINE_PROCESS_BLOCK(M)                                     \
  std::atomic<M##_p_varp*> Global_##M##_p_varp = nullptr;                \
  vx_once_control once_##M##_p_varp;                                     \
  std::atomic<int> M##_p_needs_init = 1;                                 \
  namespace {                                                            \
  struct M##_p_parts {                                                   \
    using Block = M##_p_varp;                                            \
    using Thread = M##_t_parts;                                          \
    static std::atomic<Block*>& global() { return Global_##M##_p_varp; } \
    static vx_once_control* once() { return &once_##M##_p_varp; }        \
    static std::atomic<int>& needs_init() { return M##_p_needs_init; }   \
    static void init() { M##_p_init(); }                                 \
    static void clean(void* block) { M##_p_clean(block); }               \
  };                                                                     \
  }                                                                      \
  M##_p_varp* get_##M##_p_varp() { return VarpProcessBlock<M##_p_parts>::get(); }

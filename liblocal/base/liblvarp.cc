#include "liblocal/base/liblvarp.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char* kShutdownVariable = "KIV_SHUTDOWN_STDIO";
char shutdown_off[] = "KIV_SHUTDOWN_STDIO=0";  // handed to the environment

std::atomic<void (*)()> releases[8];  // those that are set come first

// Whether this process was asked to shut down its streams. Its children are not asked.
bool take_shutdown_request() {
  // Conversion to UTF-8 would leave "" and "0" as they are.
  const char* value = getenv(kShutdownVariable);
  if (value == nullptr || *value == '\0' || strcmp(value, "0") == 0) return false;
  putenv(shutdown_off);
  return true;
}

}  // namespace

VARP_DEFINE_THREAD_BLOCK(liblocal)
VARP_DEFINE_PROCESS_BLOCK(liblocal)

liblocal_t_varp* liblocal_t_init() {
  return static_cast<liblocal_t_varp*>(_varp_map(sizeof(liblocal_t_varp)));
}

void liblocal_t_clean(void* memory) {
  auto* block = static_cast<liblocal_t_varp*>(memory);
  free(const_cast<char*>(block->saved_error.text));
  free(block->accrued_text);
  free(block->message);
  free(block->utf8_encoded.text);
  free(block->utf8_decoded.text);
  free(block->utf8_path.text);
  munmap(block, sizeof *block);
}

void liblocal_p_init() {
  auto* block = static_cast<liblocal_p_varp*>(_varp_allocate(sizeof(liblocal_p_varp)));
  block->shutdown_stdio = take_shutdown_request() ? 1 : 0;
  Global_liblocal_p_varp.store(block, std::memory_order_release);
}

void liblocal_p_clean(void* memory) {
  auto* block = static_cast<liblocal_p_varp*>(memory);
  vx_shutdown_stdio(block);
  for (void (*release)() : releases) {
    if (release != nullptr) release();
  }
  free(block);
}

void liblocal_add_release(void (*release)()) {
  for (std::atomic<void (*)()>& slot : releases) {
    void (*there)() = nullptr;
    if (slot.compare_exchange_strong(there, release) || there == release) break;
  }
  get_liblocal_p_varp();
}

void vx_shutdown_stdio(liblocal_p_varp* block) {
  if (block == nullptr) block = get_liblocal_p_varp();
  if (block == nullptr || block->shutdown_stdio.exchange(0) == 0) return;
  fflush(stdout);
  fflush(stderr);
  close(STDERR_FILENO);
  close(STDOUT_FILENO);
}

void vx_exit(int status) {
  vx_shutdown_stdio(nullptr);
  exit(status);
}

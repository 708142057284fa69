#include "liblocal/hosts/cluster.h"

#include <atomic>

namespace {

std::atomic<int (*)(const char* name)> answer;

}  // namespace

int clu_is_localvirthost(const char* name) {
  auto hook = answer.load();
  return hook != nullptr ? hook(name) : 0;
}

void clu_set_localvirthost_hook(int (*hook)(const char* name)) { answer = hook; }

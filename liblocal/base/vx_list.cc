#include "liblocal/base/vx_list.h"

#include <cerrno>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/system_lock.h"
#include "liblocal/base/vx_error.h"

struct vx_list_node {
  void* entry;
  vx_list_node* next;
};

struct vx_list {
  pthread_mutex_t mutex;
  vx_list_node* first;  // guarded by mutex
};

namespace {

// Takes the node at `link` out of its list. Returns its entry.
void* unlink(vx_list_node** link) {
  vx_list_node* node = *link;
  void* entry = node->entry;
  *link = node->next;
  free(node);
  return entry;
}

}  // namespace

vx_list* vx_list_new() {
  auto* list = c_new<vx_list>();
  if (list == nullptr) {
    _vx_error_fail(ENOMEM);
    return nullptr;
  }
  if (int error = pthread_mutex_init(&list->mutex, nullptr); error != 0) {
    _vx_error_fail(error);
    free(list);
    return nullptr;
  }
  return list;
}

int32_t vx_list_add_first(vx_list* list, void* entry) {
  if (list == nullptr || entry == nullptr) return _vx_error_null_argument();
  auto* node = c_new<vx_list_node>();
  if (node == nullptr) return _vx_error_fail(ENOMEM);
  SystemLock lock(&list->mutex);
  *node = {entry, list->first};
  list->first = node;
  return 0;
}

int32_t vx_list_remove(vx_list* list, const void* entry) {
  if (list == nullptr || entry == nullptr) return _vx_error_null_argument();
  SystemLock lock(&list->mutex);
  vx_list_node** link = &list->first;
  while (*link != nullptr && (*link)->entry != entry) link = &(*link)->next;
  if (*link == nullptr) return _vx_error_fail(ENOENT);
  unlink(link);
  return 0;
}

void* vx_list_take_first(vx_list* list) {
  if (list == nullptr) {
    _vx_error_null_argument();
    return nullptr;
  }
  SystemLock lock(&list->mutex);
  return list->first != nullptr ? unlink(&list->first) : nullptr;
}

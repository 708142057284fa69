#include "liblocal/base/vx_list.h"

#include <pthread.h>

#include <cerrno>
#include <cstdlib>

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

class ListLock {
 public:
  explicit ListLock(vx_list* list) : mutex_(&list->mutex) { pthread_mutex_lock(mutex_); }
  ~ListLock() { pthread_mutex_unlock(mutex_); }
  ListLock(const ListLock&) = delete;
  ListLock& operator=(const ListLock&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

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
  auto* list = static_cast<vx_list*>(calloc(1, sizeof(vx_list)));
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
  auto* node = static_cast<vx_list_node*>(malloc(sizeof(vx_list_node)));
  if (node == nullptr) return _vx_error_fail(ENOMEM);
  ListLock lock(list);
  *node = {entry, list->first};
  list->first = node;
  return 0;
}

int32_t vx_list_remove(vx_list* list, const void* entry) {
  if (list == nullptr || entry == nullptr) return _vx_error_null_argument();
  ListLock lock(list);
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
  ListLock lock(list);
  return list->first != nullptr ? unlink(&list->first) : nullptr;
}

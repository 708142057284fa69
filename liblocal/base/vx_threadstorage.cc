#include "liblocal/base/vx_threadstorage.h"

#include <pthread.h>

#include "liblocal/base/vx_object.h"

struct vx_threadstorage {
  vx_object_header header;
  pthread_key_t key;
};

namespace {

int32_t destroy(void* object) {
  return vx_threadstorage_destroy(static_cast<vx_threadstorage*>(object));
}

void finish(vx_threadstorage* storage) { pthread_key_delete(storage->key); }

}  // namespace

vx_threadstorage* vx_threadstorage_new(void (*destructor)(void* value)) {
  auto storage = _vx_object_allocate<vx_threadstorage>();
  if (storage == nullptr) return nullptr;
  if (int error = pthread_key_create(&storage->key, destructor); error != 0) {
    _vx_error_fail(error);
    return nullptr;
  }
  if (!_vx_object_register(storage.get(), destroy)) {
    finish(storage.get());
    return nullptr;
  }
  return storage.release();
}

void* vx_threadstorage_get(vx_threadstorage* storage) {
  if (storage == nullptr) {
    _vx_error_null_argument();
    return nullptr;
  }
  return pthread_getspecific(storage->key);
}

int32_t vx_threadstorage_set(vx_threadstorage* storage, void* value) {
  if (storage == nullptr) return _vx_error_null_argument();
  int error = pthread_setspecific(storage->key, value);
  return error == 0 ? 0 : _vx_error_fail(error);
}

int32_t vx_threadstorage_destroy(vx_threadstorage* storage) {
  return _vx_object_destroy(storage, finish);
}

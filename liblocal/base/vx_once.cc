#include "liblocal/base/vx_once.h"

#include "liblocal/base/vx_error.h"

int32_t vx_once(vx_once_control* control, void (*function)()) {
  if (control == nullptr || function == nullptr) return _vx_error_null_argument();
  int error = pthread_once(&control->once, function);
  return error == 0 ? 0 : _vx_error_fail(error);
}

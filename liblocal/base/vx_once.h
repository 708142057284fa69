// One-time initialisation.
#pragma once

#include <pthread.h>

#include <cstdint>

/// Guards one initialisation. Define it static; zero is its initial state.
struct vx_once_control {
  int32_t header;
  pthread_once_t once;
};

/// Runs `function` exactly once per `control` over the process, however many
/// threads race; all return after it has run. Returns 0 or a library error code; 2
/// with EINVAL recorded when an argument is null. `function` must not call vx_once
/// with the same control.
int32_t vx_once(vx_once_control* control, void (*function)());

// Whether the runtime is initialised. It stands apart from the initialisation, so
// that what _vxinit calls can ask.
#pragma once

/// 1 once _vxinit has run to its end, else 0. Thread safe.
[[nodiscard]] int vxinit_done();

/// What _vxinit calls at its end.
void _vx_set_initialised();

#include "liblocal/messages/liblvars.h"

std::atomic<int> Debug;
std::atomic<int> Vflag;
std::atomic<int> PrintDevInfo;

static std::atomic<int> initialised;

void liblvars_set_debug(int level) { Debug = level; }

int vxinit_done() { return initialised; }

void _vx_set_initialised() { initialised = 1; }

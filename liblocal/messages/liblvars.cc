#include "liblocal/messages/liblvars.h"

std::atomic<int> Debug;
std::atomic<int> Vflag;
std::atomic<int> PrintDevInfo;

void liblvars_set_debug(int level) { Debug = level; }

#include "liblocal/hosts/cluster.h"

int clu_is_localvirthost(const char* /*name*/) { return 0; }

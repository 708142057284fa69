// Start-up of every program on this runtime, and the program's name.
//
// Call vx_set_progname and then _vxinit first thing in main, from the main
// thread, before any other thread exists.
#pragma once

#include "liblocal/progname.h"
#include "liblocal/vxinit_done.h"

/// Initialises the runtime for the application `name` ("kiv" for the command):
/// gives up the privileges of a set-user-id start (keeping the way back to
/// root) and silences the platform's getopt. `argv` may be null.
void _vxinit(const char* name, int argc, char** argv);

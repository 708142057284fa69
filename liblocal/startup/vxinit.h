// The start of every program on this runtime.
//
// Call vx_set_progname and then _vxinit at the beginning of main, before any other thread
// exists.
#pragma once

#include "liblocal/base/version.h"
#include "liblocal/messages/liblvars.h"
#include "liblocal/messages/progname.h"

/// Initialises the runtime for the application `name` ("kiv" for the command). The
/// first call puts the process into the locale of its environment, installs the
/// debug command handler (regevent.h), finds the installation directory, records the ids
/// of the start, gives up the rights of a set-user-id root start (no other: see vxids.h)
/// and names the debug command file, `Dbgcmdpath`.
///
/// Every call switches off the messages of the platform's getopt and, unless the
/// environment variable "KIV_MAST" is set, converts the arguments to UTF-8: an entry of
/// `argv` that is not all ASCII is replaced by a new text that is never freed. Without
/// memory for one, `errno` is ENOMEM and the rest is not converted. Finally it waits for a
/// debugger when asked to (dbgsignl.h).
///
/// Without a `name` (null) there is no application directory, and the debug command file is
/// "null/vxdbg.tmp", as for "qmo" without an installation directory. `argv` may be null.
///
/// The process may end here: see find_origin.h on a program path of 1024 bytes or more, an
/// executable with hard links and "KIV_PRINT_ORIGIN".
void _vxinit(const char* name, int argc, char** argv);

/// _vxinit without arguments.
void vxinit(const char* name);

// Registering for events: the process's signal actions.
#pragma once

#include <csignal>

/// Installs `action` for `signal`. While it runs, the signal itself and SIGHUP,
/// SIGINT, SIGPIPE, SIGALRM, SIGTERM, SIGUSR1, SIGUSR2, SIGCHLD, SIGXCPU and
/// SIGXFSZ are blocked: `action`'s own mask is replaced by these. Returns the
/// result of sigaction, 0 or -1 with `errno` set. Thread safe.
int regevent(int signal, struct sigaction* action);

/// Installs the debug command handler (dbgsignl.h) for SIGUSR2, on its first call
/// only. A wait that the signal interrupts is not restarted. Returns 0. Thread
/// safe.
int regevent_setup();

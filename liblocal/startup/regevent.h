// Signal actions of the process ("register for an event").
#pragma once

#include <csignal>

/// Installs `action` for `signal`. The mask of `action` is replaced: while it runs, the
/// signal itself and SIGHUP, SIGINT, SIGPIPE, SIGALRM, SIGTERM, SIGUSR1, SIGUSR2, SIGCHLD,
/// SIGXCPU and SIGXFSZ are blocked. Returns 0, or -1 with the `errno` of sigaction. Thread
/// safe.
int regevent(int signal, struct sigaction* action);

/// Installs the debug command handler (dbgsignl.h) for SIGUSR2, on its first call only. A
/// system call that the signal interrupts is not restarted. Returns 0. Thread safe.
int regevent_setup();

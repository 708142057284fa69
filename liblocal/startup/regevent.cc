#include "liblocal/startup/regevent.h"

#include <atomic>

#include "liblocal/startup/dbgsignl.h"

namespace {

constexpr int kBlocked[] = {SIGHUP,  SIGINT,  SIGPIPE, SIGALRM, SIGTERM,
                            SIGUSR1, SIGUSR2, SIGCHLD, SIGXCPU, SIGXFSZ};

std::atomic<bool> handler_installed;

}  // namespace

int regevent(int signal, struct sigaction* action) {
  sigemptyset(&action->sa_mask);
  sigaddset(&action->sa_mask, signal);
  for (int blocked : kBlocked) sigaddset(&action->sa_mask, blocked);
  return sigaction(signal, action, nullptr);
}

int regevent_setup() {
  if (handler_installed.exchange(true)) return 0;
  struct sigaction action = {};
  action.sa_handler = ondbgintr;
  regevent(SIGUSR2, &action);
  return 0;
}

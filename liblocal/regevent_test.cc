#include "liblocal/regevent.h"

#include <gtest/gtest.h>

namespace {

TEST(Regevent, BlocksTheListedSignals) {
  struct sigaction action = {}, installed;
  action.sa_handler = SIG_IGN;
  sigfillset(&action.sa_mask);
  ASSERT_EQ(regevent(SIGWINCH, &action), 0);
  ASSERT_EQ(sigaction(SIGWINCH, nullptr, &installed), 0);
  for (int blocked : {SIGWINCH, SIGHUP, SIGINT, SIGPIPE, SIGALRM, SIGTERM, SIGUSR1, SIGUSR2,
                      SIGCHLD, SIGXCPU, SIGXFSZ}) {
    EXPECT_EQ(sigismember(&installed.sa_mask, blocked), 1) << blocked;
  }
  for (int open : {SIGQUIT, SIGTSTP}) EXPECT_EQ(sigismember(&installed.sa_mask, open), 0) << open;
  EXPECT_EQ(regevent(9999, &action), -1);
  signal(SIGWINCH, SIG_DFL);
}

}  // namespace

// The switches over the input and output of connections.
#include "rpc/xdr/io_switches.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "tests/locales.h"
#include "tests/machine.h"

namespace {

// After the start of a set-user-id program the real user is root. What only root may see
// must not show.
TEST(IoSwitches, AreLookedUpWithTheEffectiveRights) {
  if (!machine::has_users()) return MachineTest::skip("no users but root here");
  const TemporaryDirectory directory;
  machine::write_file(directory.path() + "/noreadv", "");
  auto scatter_reads = [&] {
    setenv("KIV_DEBUG_DIR", directory.path().c_str(), 1);
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // not possible in a process of two users
    if (setreuid(0, machine::kUser) != 0) _exit(2);
    _exit(rpc_get_io_switches().scatter_reads ? 1 : 0);
  };
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(scatter_reads(), testing::ExitedWithCode(1), "");  // a directory of root alone
  ASSERT_EQ(chmod(directory.path().c_str(), 0755), 0);
  EXPECT_EXIT(scatter_reads(), testing::ExitedWithCode(0), "");
}

}  // namespace

// The environment in UTF-8. The plain locale is Latin-1.
#include "liblocal/startup/vxenv.h"

#include <cerrno>

#include "liblocal/base/c_memory.h"
#include "liblocal/messages/errinfo.h"
#include "tests/fakes.h"
#include "tests/work.h"

namespace {

using fakes::FailingMalloc;

constexpr char kName[] = "KIV_ENV_TEST";

TEST(Vxenv, LeavesAsciiToThePlatform) {
  static char text[] = "KIV_ENV_TEST=a=b:\x7F";
  EXPECT_EQ(vxputenv(text), 0);
  EXPECT_EQ(vxgetenv(kName), text + sizeof kName);
  unsetenv(kName);
  EXPECT_EQ(vxgetenv(kName), nullptr);
  EXPECT_EQ(vxputenv(nullptr), 0);
}

TEST(Vxenv, ConvertsAndCutsOtherTexts) {
  for (const std::string& ascii : {std::string("caf"), std::string(20000, 'x')}) {
    setenv(kName, (ascii + "\xE9").c_str(), 1);
    const c_unique_ptr<char> value(const_cast<char*>(vxgetenv(kName)));
    EXPECT_EQ(value.get(), (ascii + "é").substr(0, 18431));
    std::string text = "KIV_ENV_TEST=" + ascii + "é";
    EXPECT_EQ(vxputenv(text.data()), 0);
    const c_unique_ptr<char> area(getenv(kName) - sizeof kName);
    EXPECT_EQ(getenv(kName), (ascii + "\xE9").substr(0, 18431 - sizeof kName));
    unsetenv(kName);  // before it is freed
  }
}

TEST(Vxenv, SaysThatThereIsNoMemory) {
  brix_strerror(ENOMEM);  // allocates what the thread keeps
  setenv(kName, "\xE9", 1);
  auto get = [] {
    const FailingMalloc failing(0, 1);
    EXPECT_EQ(vxgetenv(kName), nullptr);
  };
  EXPECT_EQ(printed(0, get), "kivtrap: Cannot allocate memory\n");
}

TEST(AddToEnvironment, ReplacesOrPrepends) {
  auto add = [] {
    setenv(kName, "\xE9", 1);
    EXPECT_EQ(add_to_environment(kName, "first", 0), 1);
    EXPECT_STREQ(getenv(kName), "first");
    setenv(kName, "old", 1);
    EXPECT_EQ(add_to_environment(kName, "first", 1), 1);
    EXPECT_STREQ(getenv(kName), "first:old");
  };
  EXPECT_EQ(fakes::pieces_left_by(add), 0) << "equal texts share one copy";
  EXPECT_EQ(add_to_environment(nullptr, "x", 0), 0);
  EXPECT_EQ(add_to_environment(kName, nullptr, 0), 0);
  for (int granted : {0, 2}) {  // the third allocation is the converted text
    const FailingMalloc failing(granted, 1);
    EXPECT_EQ(add_to_environment(kName, "é", 0), 0);
  }
  EXPECT_STREQ(getenv(kName), "first:old");
}

}  // namespace

#include "liblocal/startup/vxenv.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <set>

#include "liblocal/messages/errinfo.h"
#include "liblocal/messages/print.h"
#include "liblocal/threads/c_memory.h"
#include "tests/failing_malloc.h"
#include "tests/printed.h"

namespace {

constexpr char kName[] = "KIV_ENV_TEST";

TEST(Vxenv, AsciiPassesAsItIs) {
  static char text[] = "KIV_ENV_TEST=a=b:\x7F";
  EXPECT_EQ(vxputenv(text), 0);
  EXPECT_EQ(getenv(kName), text + sizeof kName);
  EXPECT_EQ(vxgetenv(kName), text + sizeof kName);
  unsetenv(kName);
  EXPECT_EQ(vxgetenv(kName), nullptr);
}

// In the plain locale, where every byte is a Latin-1 character.
TEST(Vxenv, ConvertsOtherTexts) {
  setenv(kName, "caf\xE9", 1);
  c_unique_ptr<char> value(const_cast<char*>(vxgetenv(kName)));
  EXPECT_STREQ(value.get(), "caf\xC3\xA9");
  static char text[] = "KIV_ENV_TEST=\xC3\xBC";
  EXPECT_EQ(vxputenv(text), 0);
  EXPECT_STREQ(getenv(kName), "\xFC");
  c_unique_ptr<char> first(getenv(kName) - sizeof kName);  // the environment lets go of it now
  EXPECT_EQ(add_to_environment(kName, "\xC3\xA4", 1), 1);
  EXPECT_STREQ(getenv(kName), "\xE4:\xFC");
  auto without_memory = [] {
    FailingMalloc none(0);
    EXPECT_EQ(vxgetenv(kName), nullptr);
    EXPECT_EQ(vxputenv(text), -1);
    EXPECT_EQ(errno, ENOMEM);
  };
  brix_strerror(ENOMEM);  // has what it needs once before memory is gone
  printed(0, without_memory);
  EXPECT_STREQ(getenv(kName), "\xE4:\xFC");
  c_unique_ptr<char> second(getenv(kName) - sizeof kName);
  unsetenv(kName);
}

TEST(Vxenv, AddsToTheEnvironment) {
  const struct {
    const char* value;
    int prepend;
    const char* wanted;
  } cases[] = {{"first", 1, "first"},  // nothing there to stand before
               {"second", 1, "second:first"},
               {"third", 0, "third"},
               {"", 1, ":third"},
               {"third", 0, "third"}};
  unsetenv(kName);
  std::set<const char*> thirds;
  for (const auto& [value, prepend, wanted] : cases) {
    EXPECT_EQ(add_to_environment(kName, value, prepend), 1);
    EXPECT_STREQ(getenv(kName), wanted);
    if (prepend == 0) thirds.insert(getenv(kName));
  }
  EXPECT_EQ(thirds.size(), 1) << "equal texts share one copy";
  {
    FailingMalloc none(0);
    EXPECT_EQ(add_to_environment(kName, "more", 1), 0);
  }
  EXPECT_STREQ(getenv(kName), "third");
  unsetenv(kName);
}

}  // namespace

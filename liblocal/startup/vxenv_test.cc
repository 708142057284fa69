#include "liblocal/startup/vxenv.h"

#include <cerrno>
#include <set>

#include "liblocal/messages/errinfo.h"
#include "liblocal/messages/print.h"
#include "liblocal/threads/c_memory.h"
#include "tests/failing_malloc.h"
#include "tests/locales.h"
#include "tests/printed.h"

namespace {

constexpr char kName[] = "KIV_ENV_TEST";

TEST(Vxenv, AsciiPassesAsItIs) {
  static char text[] = "KIV_ENV_TEST=a=b:\x7F";
  EXPECT_EQ(vxputenv(text) + vxputenv(nullptr), 0);
  EXPECT_TRUE(getenv(kName) == text + sizeof kName && vxgetenv(kName) == text + sizeof kName);
  unsetenv(kName);
  EXPECT_EQ(vxgetenv(kName), nullptr);
}

// In the plain locale, where every byte is a Latin-1 character.
TEST(Vxenv, ConvertsOtherTexts) {
  for (const std::string& ascii : {std::string("caf"), std::string(20000, 'x')}) {
    setenv(kName, (ascii + "\xE9").c_str(), 1);
    c_unique_ptr<char> value(const_cast<char*>(vxgetenv(kName)));
    EXPECT_EQ(value.get(), (ascii + "\xC3\xA9").substr(0, 18431));
    std::string text = "KIV_ENV_TEST=" + ascii + "\xC3\xA9";
    EXPECT_EQ(vxputenv(text.data()), 0);
    c_unique_ptr<char> area(getenv(kName) - sizeof kName);
    EXPECT_EQ(getenv(kName), (ascii + "\xE9").substr(0, 18431 - sizeof kName));
    unsetenv(kName);  // which lets go of it
  }
  brix_strerror(ENOMEM);  // has what it needs once before memory is gone
  setenv(kName, "\xE9", 1);
  static char text[] = "KIV_ENV_TEST=\xC3\xBC";
  for (bool getting : {true, false}) {
    auto change = [getting] {
      FailingMalloc none(0, 1);
      EXPECT_TRUE(getting ? vxgetenv(kName) == nullptr : vxputenv(text) == -1);
      EXPECT_EQ(errno, ENOMEM);
    };
    EXPECT_EQ(printed(0, change), "kivtrap: Cannot allocate memory\n");
  }
  EXPECT_STREQ(getenv(kName), "\xE9");
}

// In EUC-JP, where these bytes are no characters: '?' is all that is left of them.
TEST(Vxenv, KeepsNoCopyOfTheOldValue) {
  in_locale("EUC-JP", [] {
    auto prepend = [] {
      setenv(kName, "\xFF\xFF", 1);
      EXPECT_EQ(add_to_environment(kName, "new", 1), 1);
      EXPECT_STREQ(getenv(kName), "new:??");
    };
    EXPECT_EQ(pieces_left_by(prepend), 0);
  });
}

TEST(Vxenv, AddsToTheEnvironment) {
  const std::tuple<const char*, int, const char*> cases[] = {
      {"first", 1, "first"}, {"second", 1, "second:first"},  {"third", 0, "third"},
      {"", 1, ":third"},     {"fourth", 2, "fourth::third"}, {"third", 0, "third"}};
  unsetenv(kName);
  std::set<const char*> thirds;
  for (const auto& [value, prepend, wanted] : cases) {
    EXPECT_EQ(add_to_environment(kName, value, prepend), 1);
    EXPECT_STREQ(getenv(kName), wanted);
    if (prepend == 0) thirds.insert(getenv(kName));
  }
  EXPECT_EQ(thirds.size(), 1) << "equal texts share one copy";
  EXPECT_EQ(add_to_environment(nullptr, "x", 0) + add_to_environment(kName, nullptr, 0), 0);
  FailingMalloc none(0);
  EXPECT_EQ(add_to_environment(kName, "more", 1), 0);
  EXPECT_STREQ(getenv(kName), "third");
}

}  // namespace

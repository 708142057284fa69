#include "liblocal/messages/catgets.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <string>

#include "liblocal/messages/answers.h"
#include "liblocal/messages/i18n_3.h"
#include "liblocal/messages/locales.h"
#include "liblocal/messages/message_ids.h"
#include "liblocal/messages/vxinit_done.h"
#include "tests/lab.h"
#include "tests/locales.h"
#include "tests/printed.h"

namespace {

TEST(Locales, Names) {
  // Each name and what becomes of it; "-": the buffer stays as it was.
  std::istringstream cases(
      "C -  en_US -  en_US.UTF-8 -  en_US.utf8 -  xx.eucJP ja_JP.EUC  zh_CN.EUC zh_CN.GB2312-80 "
      "ja_JP.PCK ja_JP.sjis  japan ja_JP.EUC  fr fr_FR.8859-1  chinese zh_CN.GB2312-80 "
      "de_DE.ISO8859-1 de_DE.8859-1  de_DE.ISO8859-15 de_DE.ISO8859-15  sv sv");
  char buffer[kLocaleNameSize];
  for (std::string name, wanted; cases >> name >> wanted;) {
    strcpy(buffer, "-");
    EXPECT_EQ(normalise_locale(name.c_str(), buffer), wanted != "-");
    EXPECT_EQ(buffer, wanted) << name;
  }
  const std::string longest(127, 'x');
  EXPECT_TRUE(normalise_locale(longest.c_str(), buffer));
  EXPECT_EQ(buffer, longest);
  EXPECT_FALSE(normalise_locale((longest + "x").c_str(), buffer));
}

TEST(Locales, SetUp) {
  in_locale("ISO-8859-1", [] {
    setenv("LC_ALL", "de_DE.nowhere", 1);
    const std::string subdir = "kivtrap: Lang Subdir is\"unknown\".\n";
    EXPECT_EQ(printed(1, [] { EXPECT_EQ(init_locales("kiv", ""), nullptr); }),
              "kivtrap: Locale\"\" found.\n" + subdir);
    EXPECT_STREQ(get_user_locale(), "C");
    setenv("LC_ALL", "C.UTF-8", 1);
    set_lang_subdir("de");
    EXPECT_EQ(printed(1, [] { EXPECT_STREQ(init_locales("kiv", ""), "C.UTF-8"); }),
              "kivtrap: Locale\"C.UTF-8\" found.\n" + subdir);
    EXPECT_EQ(get_lang_subdir(), nullptr);
  });
}

TEST(Catgets, OpensAndLooksUp) {
  in_locale("", [] {
    TemporaryDirectory place;
    auto make = [&place](const std::string& name, const std::string& messages) {
      lab::write_file(place.path() + "/source", messages);
      lab::Command compile;
      compile.words = {"/usr/bin/gencat", place.path() + "/" + name, place.path() + "/source"};
      ASSERT_EQ(lab::run(compile).status, 0);
    };
    make("vaultmre.cat", "$set 17\n264 #1\n17 J\n$set 41\n22 benutze\n264 vier\n");
    make("bare.cat", "$set 41\n22 bare\n");
    make("old.cat", "$set 17\n264 #0\n");
    setenv("NLSPATH", (place.path() + "/%N").c_str(), 1);
    EXPECT_EQ(vxcatopen("kiv", 0), -1) << "without a language";
    set_lang_subdir("de");
    int64_t catalog = -1;
    EXPECT_EQ(printed(1, [&] { catalog = vxcatopen("kiv", 0); }),
              "kivtrap: Message catalog \"vaultmre.cat\" found.\n");
    EXPECT_EQ(printed(1, [] { EXPECT_EQ(vxcatopen("old", 0), -1); }),
              "kivtrap: Message catalog \"old.cat\" incompatible version.\n");
    EXPECT_EQ(printed(1, [] { EXPECT_EQ(vxcatopen("no.such", 0), -1); }),
              "kivtrap: Message catalog \"no.such\" NOT found.\n");
    EXPECT_EQ(vxcatopen(std::string(20000, 'x').c_str(), 0), -1);
    EXPECT_EQ(vxcatclose(vxcatopen("bare", 0)) + vxcatclose(vxcatopen(nullptr, 0)), 0);

    const char* text = "usage";
    EXPECT_EQ(vxcatgets(catalog, 41, 22, text), text) << "before the initialisation has ended";
    EXPECT_STREQ(vxcatgets(catalog, 41, 264, text), "vier");
    EXPECT_STREQ(vxcatgets(catalog, 17, 17, text), "J");
    _vx_set_initialised();
    errno = EBUSY;
    EXPECT_STREQ(vxcatgets(catalog, 41, 22, text), "benutze");
    EXPECT_EQ(vxcatgets(-1, 41, 22, text), text);
    EXPECT_EQ(errno, EBUSY);
    Catd = catalog;
    EXPECT_TRUE(is_yes("Ja") && is_yes("yes") && !is_yes("Yes"));
    Catd = -1;
    EXPECT_EQ(vxcatclose(catalog), 0);
  });
}

TEST(Answers, Letters) {
  EXPECT_TRUE(is_yes("yes") && is_yes("Yo") && !is_yes("no") && !is_yes("") && !is_yes(nullptr));
  EXPECT_TRUE(is_no("No") && is_quit("q") && is_rename("R") && !is_rename("q") && !is_quit("r"));
}

TEST(I18n3, JoinsAndRotates) {
  const char* first = i18n_3("a", nullptr, "c");
  for (int i = 1; i < kJoinedTexts; ++i) EXPECT_NE(i18n_3("", "x", ""), first);
  EXPECT_STREQ(first, "ac");
  const std::string half(4000, 'x');
  EXPECT_EQ(i18n_3(half.c_str(), half.c_str(), ""), (half + half).substr(0, kJoinedSize - 1));
  EXPECT_EQ(first, (half + half).substr(0, kJoinedSize - 1)) << "its place comes round again";
}

static_assert(mc_message_id(1, 7) == 0x801 * 65536 + 7);
static_assert(mc_message_id(0x80000000, 0) == -int64_t{0x7FFFF800} * 65536);

}  // namespace

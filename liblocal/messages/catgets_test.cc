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
#include "liblocal/threads/text_sizes.h"
#include "tests/lab.h"
#include "tests/locales.h"
#include "tests/printed.h"

static const char* language = nullptr;

// What the linker puts in the place of get_lang_subdir.
extern "C" const char* __wrap__Z15get_lang_subdirv() { return language; }

namespace {

TEST(Locales, Names) {
  // Each name and what becomes of it; "-": the buffer stays as it was.
  std::istringstream cases(
      "C -  en_US -  en_US.UTF-8 -  en_US.utf8 -  xx.eucJP ja_JP.EUC  zh_CN.EUC zh_CN.GB2312-80 "
      "ja_JP.PCK ja_JP.sjis  japan ja_JP.EUC  ja ja_JP.EUC  ja_JP ja_JP.EUC  japanese ja_JP.EUC "
      "fr fr_FR.8859-1  de de_DE.8859-1  chinese zh_CN.GB2312-80  zh zh_CN.GB2312-80 "
      "de_DE.ISO8859-1 de_DE.8859-1  sv.iso88591 sv.8859-1  de_DE.ISO8859-15 de_DE.ISO8859-15 "
      "sv sv  a.b.eucJP a.b.eucJP " +
      std::string(127, 'x') + " " + std::string(127, 'x') + " " + std::string(128, 'x') + " -");
  for (std::string name, wanted; cases >> name >> wanted;) {
    char buffer[kLocaleNameSize] = "-";
    EXPECT_EQ(normalise_locale(name.c_str(), buffer), wanted != "-") << name;
    EXPECT_EQ(buffer, wanted) << name;
  }
}

TEST(Locales, SetUp) {
  in_locale("ISO-8859-1", [] {
    // The environment's locale, what it is found to be, and the answer.
    const std::tuple<const char*, std::string, const char*> cases[] = {
        {"de_DE.nowhere", "", nullptr}, {"C", "", "C"}, {"C.UTF-8", "C.UTF-8", "C.UTF-8"}};
    for (const auto& [name, found, answer] : cases) {
      setenv("LC_ALL", name, 1);
      const char* result = nullptr;
      EXPECT_EQ(printed(1, [&] { result = init_locales("kiv", ""); }),
                "kivtrap: Locale\"" + found + "\" found.\nkivtrap: Lang Subdir is\"unknown\".\n");
      EXPECT_STREQ(result, answer);
      EXPECT_STREQ(setlocale(LC_CTYPE, nullptr), answer != nullptr ? answer : "C");
      EXPECT_STREQ(get_user_locale(), "C");
      EXPECT_STREQ(get_rap_locale(), "C");
    }
    EXPECT_EQ(printed(0, [] { EXPECT_STREQ(init_locales("kiv", "POSIX"), "C"); }), "");
  });
}

// Catalogs made by the platform's own compiler, to be found by name.
struct Catalogs {
  explicit Catalogs(const std::vector<std::pair<std::string, std::string>>& texts) {
    for (const auto& [name, messages] : texts) {
      lab::write_file(place.path() + "/source", messages);
      lab::Command compile;
      compile.words = {"/usr/bin/gencat", place.path() + "/" + name, place.path() + "/source"};
      EXPECT_EQ(lab::run(compile).status, 0);
    }
    setenv("NLSPATH", (place.path() + "/%N").c_str(), 1);
  }
  TemporaryDirectory place;
};

TEST(Catgets, Opens) {
  in_locale("", [] {
    Catalogs catalogs({{"vaultmre.cat", "$set 41\n264 #0\n"},  // a marker of another set
                       {"new.one", "$set 17\n264 #1\n"},
                       {"old.cat", "$set 17\n264 #0\n"}});
    EXPECT_EQ(vxcatopen("kiv", 0), -1) << "without a language";
    language = "de";
    const std::string most(kPathSize - 5, 'x'), more(kPathSize - 4, 'x');
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"kiv", "vaultmre.cat", "found"},
        {nullptr, "vaultmre.cat", "found"},
        {"new.one", "new.one", "found"},
        {"new", "new.cat", "NOT found"},
        {"old", "old.cat", "incompatible version"},
        {most.c_str(), most + ".cat", "NOT found"},
        {more.c_str(), more + ".cat", "NOT found"}};
    for (const auto& [name, file, outcome] : cases) {
      for (int level : {0, 1}) {
        int64_t catalog = -1;
        EXPECT_EQ(printed(level, [&, name = name] { catalog = vxcatopen(name, 0); }),
                  level == 0 ? "" : "kivtrap: Message catalog \"" + file + "\" " + outcome + ".\n");
        EXPECT_EQ(catalog != -1, outcome == "found");
        EXPECT_TRUE(catalog == -1 || vxcatclose(catalog) == 0);
      }
    }
  });
}

// Each test of an answer, its first message and the upper-case letter.
const std::tuple<int (*)(const char*), int, char> kAnswers[] = {
    {is_no, 10, 'N'}, {is_quit, 12, 'Q'}, {is_rename, 14, 'R'}, {is_yes, 16, 'Y'}};

TEST(Catgets, LooksUp) {
  in_locale("", [] {
    std::string letters;
    for (int i = 10; i <= 17; ++i) letters += std::to_string(i) + " <" + std::to_string(i) + ">\n";
    Catalogs catalogs({{"kiv.x", "$set 17\n" + letters + "$set 41\n22 benutze\n264 vier\n"}});
    language = "de";
    Catd = vxcatopen("kiv.x", 0);
    const char* text = "usage";
    EXPECT_EQ(vxcatgets(Catd, 41, 22, text), text) << "before the initialisation has ended";
    EXPECT_STREQ(vxcatgets(Catd, 41, 264, text), "vier");
    EXPECT_STREQ(vxcatgets(Catd, 17, 17, text), "<17>");
    _vx_set_initialised();
    errno = EBUSY;
    EXPECT_STREQ(vxcatgets(Catd, 41, 22, text), "benutze");
    EXPECT_EQ(vxcatgets(Catd, 41, 23, text), text);
    EXPECT_EQ(vxcatgets(-1, 41, 22, text), text);
    EXPECT_EQ(errno, EBUSY);

    for (const auto& [is_answer, number, letter] : kAnswers) {
      for (int i = 10; i <= 17; ++i) {
        const std::string answer = "<" + std::to_string(i) + "> and more";
        EXPECT_EQ(is_answer(answer.c_str()), i == number || i == number + 1 ? 1 : 0) << number << i;
      }
    }
    EXPECT_EQ(std::string(i18n_char_no()) + i18n_char_rename() + i18n_char_yes(), "<11><15><17>");
    EXPECT_EQ(vxcatclose(Catd), 0);
  });
}

TEST(Answers, Letters) {
  for (const auto& [is_answer, number, letter] : kAnswers) {
    for (char c = 127; c > 0; --c) {
      const char answer[] = {c, 'x', '\0'};
      EXPECT_EQ(is_answer(answer), c == letter || c == letter + 32 ? 1 : 0) << answer << letter;
    }
    EXPECT_EQ(is_answer("") + is_answer(nullptr), 0);
  }
  EXPECT_EQ(std::string(i18n_char_no()) + i18n_char_rename() + i18n_char_yes(), "NRY");
}

TEST(I18n3, JoinsAndRotates) {
  const char* first = i18n_3("a", nullptr, "c");
  for (int i = 1; i < kJoinedTexts; ++i) EXPECT_NE(i18n_3("", "x", ""), first);
  EXPECT_STREQ(first, "ac");
  const std::string half(4000, 'x');
  EXPECT_EQ(i18n_3(half.c_str(), half.c_str(), ""), (half + half).substr(0, 6143));
  EXPECT_EQ(first, (half + half).substr(0, 6143)) << "its place comes round again";
}

TEST(MessageIds, OfFacilityAndNumber) {
  EXPECT_EQ(mc_message_id(1, 7), 0x8010007);
  EXPECT_EQ(mc_message_id(0x80000000, 0), -int64_t{0x7FFFF800} * 65536);
}

}  // namespace

#include "liblocal/messages/catgets.h"

#include <cerrno>
#include <sstream>

#include "liblocal/messages/answers.h"
#include "liblocal/messages/i18n_3.h"
#include "liblocal/messages/locales.h"
#include "liblocal/messages/message_ids.h"
#include "liblocal/messages/vxinit_done.h"
#include "liblocal/threads/text_sizes.h"
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
      EXPECT_EQ(std::string(get_user_locale()) + get_rap_locale(), "CC");
    }
    EXPECT_EQ(printed(0, [] { EXPECT_STREQ(init_locales("kiv", "POSIX"), "C"); }), "");
  });
}

// `letters` are the messages 10 to 17: two for each answer.
void expect_answers(const std::vector<std::string>& letters) {
  int (*const answers[])(const char*) = {is_no, is_quit, is_rename, is_yes};
  for (size_t i = 0; i < 4; ++i) {
    for (size_t j = 0; j < 8; ++j) EXPECT_EQ(answers[i]((letters[j] + "x").c_str()), j / 2 == i);
    EXPECT_EQ(answers[i]("") + answers[i]("x") + answers[i]("<1") + answers[i](nullptr), 0);
  }
  EXPECT_EQ(std::string(i18n_char_no()) + i18n_char_rename() + i18n_char_yes(),
            letters[1] + letters[5] + letters[7]);
}

TEST(Catgets, OpensAndLooksUp) {
  expect_answers({"n", "N", "q", "Q", "r", "R", "y", "Y"});
  in_locale("", [] {
    TemporaryDirectory place;
    setenv("NLSPATH", (place.path() + "/%N").c_str(), 1);
    const std::pair<std::string, const char*> catalogs[] = {
        {"vaultmre.cat", "$set 41\n264 #0\n"},  // a marker of another set
        {"old.cat", "$set 17\n264 #0\n"},
        {"new.one",
         "$set 17\n10 <10>\n11 <11>\n12 <12>\n13 <13>\n14 <14>\n15 <15>\n16 <16>\n17 <17>\n"
         "264 #1\n$set 41\n22 benutze\n264 vier\n"}};
    for (const auto& [name, text] : catalogs) compile_catalog(place.path() + "/" + name, text);
    EXPECT_EQ(vxcatopen("kiv", 0), -1) << "without a language";
    language = "de";
    const std::string most(kPathSize - 5, 'x'), more(kPathSize - 4, 'x');
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"kiv", "vaultmre.cat", "found"},
        {nullptr, "vaultmre.cat", "found"},
        {"new", "new.cat", "NOT found"},
        {"old", "old.cat", "incompatible version"},
        {most.c_str(), most + ".cat", "NOT found"},
        {more.c_str(), more + ".cat", "NOT found"},
        {"new.one", "new.one", "found"}};
    for (const auto& [name, file, outcome] : cases) {
      for (int level : {0, 1}) {
        vxcatclose(Catd);
        EXPECT_EQ(printed(level, [name = name] { Catd = vxcatopen(name, 0); }),
                  level == 0 ? "" : "kivtrap: Message catalog \"" + file + "\" " + outcome + ".\n");
        EXPECT_EQ(Catd != -1, outcome == "found");
      }
    }

    const char* text = "usage";
    EXPECT_EQ(vxcatgets(Catd, 41, 22, text), text) << "before the initialisation has ended";
    EXPECT_STREQ(vxcatgets(Catd, 41, 264, text), "vier");
    EXPECT_STREQ(vxcatgets(Catd, 17, 17, text), "<17>");
    _vx_set_initialised();
    errno = EBUSY;
    EXPECT_STREQ(vxcatgets(Catd, 41, 22, text), "benutze");
    EXPECT_TRUE(vxcatgets(Catd, 41, 23, text) == text && vxcatgets(-1, 41, 22, text) == text);
    EXPECT_EQ(errno, EBUSY);
    expect_answers({"<10>", "<11>", "<12>", "<13>", "<14>", "<15>", "<16>", "<17>"});
    EXPECT_EQ(vxcatclose(Catd), 0);
  });
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

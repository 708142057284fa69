#include "liblocal/text/utf8_convert.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <utility>

#include "liblocal/text/codesets.h"
#include "liblocal/text/vxstrftime.h"
#include "tests/fakes.h"
#include "tests/locales.h"

namespace {

using Converter = size_t (*)(char* output, const char* input, size_t size);

// What a conversion returns, and its text.
std::pair<size_t, std::string> converted(Converter convert, const std::string& text, size_t size) {
  std::string area(size + 1, '!');
  errno = EBUSY;
  const size_t count = convert(area.data(), text.c_str(), size);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_EQ(area[size], '!');
  return {count, area.c_str()};
}

std::string in(const std::string& text) { return converted(utf8_mbs, text, 1000).second; }
std::string out(const std::string& text) { return converted(ansi_mbs, text, 1000).second; }

TEST(Utf8Convert, ByLocale) {
  const struct {
    const char* codeset;
    std::string ansi, utf8;      // one from the other, both ways
    std::string invalid, valid;  // bytes that are not valid in the codeset, and their text
  } cases[] = {
      {"", "A\xE9\x80\\~", "Aé\xC2\x80\\~", "", ""},
      {"EUC-JISX0213", "\xC6\xFC\xA4\xF7 a\x8E\xB1\\~\xA4\xAB", "日か゚ aｱ\\~か", "a\xFF\xC6", "a??"},
      {"SHIFT_JIS", "\x93\xFA\x96{a\xB1", "日本aｱ", "~\x93\xFA\x5C\x7E\xFFz", "‾日¥‾?z"},
      {"TCVN5712-1", "Vi\xD6t e", "Việt e", "\x01", "Ú"},
      {"UTF-8", "日本 é", "日本 é", "\xFF\xC3", "\xFF\xC3"}};
  for (const auto& on : cases) {
    in_locale(on.codeset, [&] {
      EXPECT_EQ(out(on.utf8), on.ansi);
      EXPECT_EQ(in(on.ansi), on.utf8);
      EXPECT_EQ(in(on.invalid), on.valid);
      EXPECT_EQ(in("again"), "again");  // no state is left
      EXPECT_EQ(out(on.utf8 + "\xEF\xA3\xA9\xFF" + on.utf8), on.ansi + "\xE9\xFF" + on.ansi);
      EXPECT_EQ(out("\\~\x01 \xFF\xC0\x80 \x41"), "\\~\x01 \xFF\xC0\x80 \x41");
      EXPECT_TRUE(ansi_is_same("a", 1));
      EXPECT_TRUE(utf8_is_same("a", 1));
      EXPECT_EQ(out(on.utf8 + "\x01"), on.ansi + "\x01");  // ASCII stays behind a letter, too
    });
  }
}

TEST(Utf8Convert, CutsToTheArea) {
  const struct Row {
    std::string codeset;
    Converter convert;
    std::string text;
    size_t size;
    size_t count;
    std::string wanted;
  } rows[] = {
      {"", utf8_mbs, "abcdef", 4, 4, "abc"},  // it would fill the last byte
      {"", utf8_mbs, "a\xE9", 3, 3, "a"},
      {"", utf8_mbs, "a", 0, 0, "!"},
      {"", ansi_mbs, "abcd", 4, 3, "abc"},
      {"", ansi_mbs, "é", 9, 1, "\xE9"},
      {"", ansi_mbs, "ab\xEF\xA3\xA9", 3, 2, "ab"},
      {"", ansi_mbs, "ab\xEF\xA2z", 8, 0, "ab"},
      {"EUC-JISX0213", utf8_mbs, "ab\xFF\xC6z", 4, 3, "ab?"},  // one byte is left after a '?'
      {"EUC-JISX0213", utf8_mbs, "ab\xFF", 3, 3, "ab"},
      {"EUC-JISX0213", ansi_mbs, "かz", 2, 2, ""},  // か may combine, and is forgotten
      {"EUC-JISX0213", ansi_mbs, "丂한qq", 6, 5, "\x8F\xA1\xA2?q"},
      {"UTF-8", utf8_mbs, "a\xE6\x97\xE6\x97\xA5", 3, 2, "a\xE6"},
      {"UTF-8", ansi_mbs, "é", 2, 2, ""},
      {"UTF-8", ansi_mbs, "日本", 6, 6, "日"}};
  for (const std::string codeset : {"", "EUC-JISX0213", "UTF-8"}) {
    in_locale(codeset, [&] {
      for (const Row& row : rows) {
        if (row.codeset != codeset) continue;
        EXPECT_EQ(converted(row.convert, row.text, row.size), std::pair(row.count, row.wanted));
      }
    });
  }
}

TEST(Utf8Convert, PlainTextOpensNoConverter) {
  fakes::codeset = "none that there is";
  EXPECT_EQ(converted(utf8_mbs, "plain }\t\r", 10).second + out("plain\\~ \xEF\xA3\xA9!"),
            "plain }\t\rplain\\~ \xE9!");
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(in("\\"), testing::ExitedWithCode(1), "^Function 'iconv_open' failed for ANSI to");
  EXPECT_EXIT(out("é"), testing::ExitedWithCode(1), "^Function 'iconv_open' failed for UTF-8 to");
  fakes::codeset = nullptr;
}

TEST(Utf8Convert, BuffersOfTheThread) {
  char* first = utf8encode("\xE9", 10);
  EXPECT_STREQ(first, "é");
  EXPECT_EQ(utf8encode("x", 6144), first);
  const std::string longer(6144, 'x');
  EXPECT_EQ(utf8encode(longer.c_str(), 6145), longer);
  const fakes::FailingMalloc failing(0);
  EXPECT_EQ(utf8encode("x", 6146), nullptr);
  EXPECT_STREQ(utf8encode("x", 6145), "x");
}

TEST(Utf8Convert, TimesInTheWordsOfTheLocale) {
  auto in_german = [] {
    const tm march = {0, 0, 0, 1, 2, 126, 0, 0, 0, 0, nullptr};
    char text[640];
    EXPECT_EQ(vxstrftime(text, sizeof text, "%d. %B €", &march), 13U);
    EXPECT_STREQ(text, "01. März €");
    EXPECT_EQ(vxstrftime(text, 0, "%Y", &march), 0U);
    EXPECT_EQ(vxstrftime(nullptr, 9, "%Y", &march), 0U);
    EXPECT_EQ(vxstrftime(text, sizeof text, std::string(600, 'x').c_str(), &march), 0U);
  };
  in_locale("ISO-8859-15", in_german, "de_DE");
}

TEST(Utf8Convert, TextOfThePlatform) {
  in_locale("EUC-JP", [] {
    EXPECT_EQ(ansi_mbslen("a\xC6"), -1);
    EXPECT_EQ(ansi_mbslen("a\xC6\xFC"), 2);
    char output[16];
    EXPECT_EQ(vx_utf8tombts(output, "a日", sizeof output), 1);
    EXPECT_STREQ(output, "a\xEF\xA3\x86\xEF\xA3\xBC");
    EXPECT_TRUE(Ansi_keeps_ascii);
    EXPECT_EQ(vx_utf8tombts(output, "", sizeof output), 0);
    EXPECT_EQ(ansi_mbslen(nullptr), 0);
    EXPECT_EQ(ansi_mbs(nullptr, "a", 2), 0U);
    EXPECT_EQ(ansi_mbs(output, nullptr, 2), 0U);
    EXPECT_STREQ(output, "");
  });
}

}  // namespace

#include "liblocal/text/utf8_convert.h"

#include <gtest/gtest.h>
#include <iconv.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "liblocal/text/codesets.h"
#include "liblocal/text/mbt.h"
#include "liblocal/text/utf8.h"
#include "liblocal/text/utf8_codec.h"
#include "liblocal/text/vxstrftime.h"
#include "tests/fakes.h"
#include "tests/locales.h"

namespace {

using std::string_literals::operator""s;

using Converter = size_t (*)(char* output, const char* input, size_t size);

std::string converted(Converter convert, const std::string& text, size_t size) {
  std::string area(size + 1, '!');
  errno = EBUSY;
  const size_t written = convert(area.data(), text.c_str(), size);
  EXPECT_TRUE(errno == EBUSY && area[size] == '!');
  area.resize(strlen(area.c_str()));
  EXPECT_TRUE(written == area.size() || written == size || written == 0);
  return area;
}

// The whole text, where areas that are too small or just large enough hold what they can.
std::string in_every_area(Converter convert, const std::string& text) {
  std::string whole = converted(convert, text, 6 * text.size() + 1);
  for (size_t size = 1; size <= whole.size() + 2; ++size) {
    SCOPED_TRACE(text + " in " + std::to_string(size));
    const std::string got = converted(convert, text, size);
    // Of what is cut, no more than a character is given up.
    EXPECT_TRUE(whole.starts_with(got) &&
                got.size() + (size > whole.size() ? 0 : 4) >= std::min(whole.size(), size));
    if (convert == ansi_mbs && Needs_conversion != 0) continue;
    EXPECT_GE(is_utf8_mbs(got.c_str()), is_utf8_mbs(whole.c_str())) << "cut between characters";
  }
  return whole;
}

std::string in(const std::string& text) { return in_every_area(utf8_mbs, text); }
std::string out(const std::string& text) { return in_every_area(ansi_mbs, text); }

TEST(Utf8Convert, ByLocale) {
  const struct {
    const char* codeset;
    std::string ansi, utf8;      // one from the other, both ways
    std::string invalid, valid;  // in the codeset; what is made of it
  } cases[] = {
      {"", "A\xE9\x80\\~", "Aé\xC2\x80\\~", "", ""},
      {"EUC-JP", "\xC6\xFC\xCB\xDC a\x8E\xB1\\~", "日本 aｱ\\~", "a\xFF\xC6", "a??"},
      {"SHIFT_JIS", "\x93\xFA\x96{a\xB1", "日本aｱ", "~\x93\xFA\x5C\x7E\xFFz", "‾日¥‾?z"},
      {"TCVN5712-1", "Vi\xD6t e", "Việt e", "\x01", "Ú"},
      {"UTF-8", "日本 é", "日本 é", "\xFF\xC3", "\xFF\xC3"},
  };
  for (const auto& on : cases) {
    in_locale(on.codeset, [&] {
      const bool is_utf8 = on.ansi == on.utf8;
      EXPECT_EQ(Needs_conversion, 1);
      learn_codeset();
      EXPECT_EQ(Needs_conversion, is_utf8 ? 0 : 1);
      EXPECT_EQ(in("~"), on.codeset == "SHIFT_JIS"s ? "‾" : "~");
      EXPECT_EQ(in(on.ansi), on.utf8);
      EXPECT_EQ(out(on.utf8 + "\xEF\xA3\xA9"), on.ansi + "\xE9");
      EXPECT_EQ(Ansi_keeps_ascii, !is_utf8 && on.codeset != "TCVN5712-1"s);
      EXPECT_EQ(in(on.invalid), on.valid);
      EXPECT_EQ(in("again"), "again") << "nothing is left over";
      EXPECT_EQ(out("\\~\x01 \xFF\xC0\x80 \x41\xEF\xA3\xA9"), "\\~\x01 \xFF\xC0\x80 \x41\xE9");
      std::string nowhere = "\xF0\x9F\x98\x80\xFF\xFD\xBF\xBF\xBF\xBF\xBF", lost = "?\xFF?";
      for (int i = 0; i < 3; ++i) nowhere += nowhere, lost += lost;
      EXPECT_EQ(converted(ansi_mbs, on.utf8 + nowhere + on.utf8, 1000),
                on.ansi + (is_utf8 ? nowhere : lost) + on.ansi);
      for (const char* text :
           {"aéô€ z", "日本語", "é\xFFq", "ｱa日\xEF\xA3\xA9", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaê"}) {
        in(out(text));
      }
    });
  }
}

// What the platform's converter makes of `text`; nothing where it stops, with EINVAL for want
// of more bytes.
std::string platforms(iconv_t converter, const std::string& text) {
  std::string result(4 * text.size() + 8, '\0');
  char *in = const_cast<char*>(text.data()), *out = result.data();
  size_t in_left = text.size(), out_left = result.size();
  errno = 0;
  if (iconv(converter, &in, &in_left, &out, &out_left) != 0) out_left = result.size();
  if (in_left < text.size()) iconv(converter, nullptr, nullptr, &out, &out_left);
  result.resize(in_left == 0 ? result.size() - out_left : 0);
  return result;
}

// Whether all codes of a codeset, and pairs of them, that the platform keeps come back here.
// Of the codes of four bytes, which are too many, some; and none that looks transparent.
bool keeps_what_the_platform_keeps(const char* codeset) {
  fakes::codeset = codeset;
  iconv_t to_utf8 = iconv_open("UTF-8", codeset), from_utf8 = iconv_open(codeset, "UTF-8");
  auto keeps = [&](const std::string& text) {
    const std::string utf8 = platforms(to_utf8, text);
    return !utf8.empty() && platforms(from_utf8, utf8) == text && containsMBT(utf8.c_str()) == 0;
  };
  std::vector<std::string> codes, begun = {""};
  while (!begun.empty()) {
    const std::string start = begun.back();
    begun.pop_back();
    for (int byte = 1; byte < 256; ++byte) {
      const std::string code = start + static_cast<char>(byte);
      if (keeps(code))
        codes.push_back(code);
      else if (errno == EINVAL && (code.size() < 3 || (code[0] + code[2]) % 61 == 0))
        begun.push_back(code);
    }
  }
  std::string kept;
  for (size_t i = 0; i < codes.size(); ++i) {
    kept += codes[i] + "\n";
    for (size_t next = codes.size() < 256 ? codes.size() - 1 : 1; next > 0; --next) {
      const std::string pair = codes[i] + codes[(i + next) % codes.size()];
      if (keeps(pair)) kept += pair + "\n";
    }
  }
  const std::string utf8 = converted(utf8_mbs, kept, 6 * kept.size());
  return codes.size() > 160 && converted(ansi_mbs, utf8, utf8.size()) == kept;
}

TEST(Utf8Convert, WhatThePlatformKeepsComesBackInEveryCodeset) {
  // Of every locale that there is for the platform, and some more.
  std::set<std::string> names = {"EUC-JISX0213", "SHIFT_JISX0213", "SHIFT_JIS", "JOHAB",
                                 "TCVN5712-1",   "VISCII",         "CP1258",    "CP949"};
  std::ifstream supported("/usr/share/i18n/SUPPORTED");
  for (std::string locale, name; supported >> locale >> name;) names.insert(name);
  names.erase("UTF-8");
  EXPECT_GE(names.size(), 35U);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const std::string& codeset : names) {
    EXPECT_EXIT(_exit(keeps_what_the_platform_keeps(codeset.c_str()) ? 0 : 1),
                testing::ExitedWithCode(0), "")
        << codeset;
  }
}

TEST(Utf8Convert, TooSmallAreas) {
  char area[] = "!!!!!!!!";
  EXPECT_EQ(utf8_mbs(area, "abcdef", 4), 4U) << "it would have filled the last byte";
  EXPECT_EQ(ansi_mbs(area, "abcdef", 4), 3U) << "which alone takes no character";
  EXPECT_EQ(ansi_mbs(area, "ab\xEF\xA2z", 3), 2U) << "not looked at";
  EXPECT_TRUE(ansi_mbs(area, "ab\xEF\xA2z", 8) == 0 && area == "ab"s);
  EXPECT_EQ(utf8_mbs(area, nullptr, 2) + ansi_mbs(nullptr, "a", 2) + utf8_mbs(nullptr, "a", 2), 0U);
  EXPECT_STREQ(area, "");
}

TEST(Utf8Convert, PlainTextOpensNoConverter) {
  auto without_converters = [] {
    fakes::codeset = "none that there is";
    return converted(utf8_mbs, "plain", 99) + converted(ansi_mbs, "plain\\~ \xEF\xA3\xA9", 99);
  };
  const std::string rest = " conversion\\. The function .* LC_MESSAGES, LC_ALL and LANG\\.\n$";
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(exit(without_converters() == "plainplain\\~ \xE9" ? 0 : 1),
              testing::ExitedWithCode(0), "^$");
  EXPECT_EXIT((without_converters(), in("\xE9")), testing::ExitedWithCode(1),
              "^Function 'iconv_open' failed for ANSI to UTF-8" + rest);
  EXPECT_EXIT((without_converters(), out("é")), testing::ExitedWithCode(1),
              "^Function 'iconv_open' failed for UTF-8 to ANSI" + rest);
}

TEST(Utf8Convert, WithoutALockTheProcessIsTerminated) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string failed = "Operation could not be completed. Lock creation failed for ";
  const std::pair<bool (*)(), std::string> cases[] = {
      {[] { return in("a\xC3\xA9").empty(); }, failed + "UTF-8 conversion. Try again.\n"},
      {[] { return out("a\xC3\xA9") == "a"; }, failed + "ANSI conversion. Try again.\n"},
      {[] { return (utf8_fd(5), !utf8_is_marked(5)); }, ""}};
  for (const auto& each : cases) {
    auto start = [&](void (*on_termination)(int)) {
      signal(SIGTERM, on_termination);
      fakes::FailingMalloc failing(0, 1);
      _exit(each.first() ? 0 : 1);
    };
    EXPECT_EXIT(start(SIG_DFL), testing::KilledBySignal(SIGTERM), "^" + each.second + "$");
    EXPECT_EXIT(start(SIG_IGN), testing::ExitedWithCode(0), "^" + each.second + "$");
  }
}

TEST(Utf8Convert, BuffersOfTheThread) {
  in_locale("ISO-8859-15", [] {
    char* first = utf8encode("\xE9", 10);
    EXPECT_STREQ(first, "é");
    EXPECT_STREQ(utf8decode("€", 10), "\xA4");
    const std::string longer(7000, 'x');
    EXPECT_EQ(utf8encode(longer.c_str(), 10), longer.substr(0, 6143));
    EXPECT_EQ(utf8encode(longer.c_str(), 6144), first);
    EXPECT_EQ(utf8encode(longer.c_str(), 6145), longer.substr(0, 6144));
    EXPECT_TRUE((fakes::FailingMalloc(0), !utf8encode("x", 6146) && *utf8encode("x", 6145) == 'x'));
    size_t size = 7000;
    EXPECT_EQ(fakes::pieces_left_by([&] { EXPECT_NE(utf8encode("x", ++size), nullptr); }), 0);
  });
}

TEST(Utf8Convert, TextsOfThePlatform) {
  auto in_german = [] {
    const tm march = {0, 0, 0, 1, 2, 126, 0, 0, 0, 0, nullptr};
    char text[640];
    EXPECT_EQ(vxstrftime(text, sizeof text, "%d. %B – %Y €", &march), 20U);
    EXPECT_STREQ(text, "01. März ? 2026 €");
    EXPECT_EQ(vxstrftime(text, 4, "%Y", &march), 3U);
    EXPECT_EQ(vxstrftime(text, sizeof text, std::string(599, 'x').c_str(), &march), 599U);
    EXPECT_EQ(vxstrftime(text, sizeof text, std::string(600, 'x').c_str(), &march), 0U);
    EXPECT_EQ(vxstrftime(text, sizeof text, (std::string(1022, '%') + "ab").c_str(), &march), 512U);
    EXPECT_EQ(vxstrftime(nullptr, 4, "x", &march) + vxstrftime(text, 0, "x", &march), 0U);
  };
  in_locale("ISO-8859-15", in_german, "de_DE");
  in_locale("EUC-JP", [] {
    EXPECT_TRUE(ansi_mbslen("a\xC6\xFC") == 2 && ansi_mbslen("a\xC6") == -1 &&
                ansi_mbslen(nullptr) == 0);
    char output[13000];
    EXPECT_EQ(vx_utf8tombts(output, "a日", 16), 1);
    EXPECT_STREQ(output, "a\xEF\xA3\x86\xEF\xA3\xBC");
    EXPECT_EQ(vx_utf8tombts(output, std::string(12400, 'x').c_str(), sizeof output), 1);
    EXPECT_TRUE(strlen(output) == 12287 && vx_utf8tombts(output, nullptr, 16) == 0);
  });
}

}  // namespace

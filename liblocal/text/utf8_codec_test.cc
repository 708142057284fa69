// UTF-8 characters, their columns, wide characters and transparent bytes.
#include "liblocal/text/utf8_codec.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "liblocal/base/c_memory.h"
#include "liblocal/text/ascii.h"
#include "liblocal/text/mbt.h"
#include "liblocal/text/utf8_columns.h"
#include "liblocal/text/utf8_wide.h"

namespace {

TEST(Utf8Codec, EncodesAndDecodesTheBoundariesOfEveryLength) {
  const struct {
    wchar_t value;
    std::string bytes;
  } characters[] = {
      {0x80, "\xC2\x80"},
      {0x7FF, "\xDF\xBF"},
      {0x800, "\xE0\xA0\x80"},
      {0xFFFF, "\xEF\xBF\xBF"},
      {0x10000, "\xF0\x90\x80\x80"},
      {0x1FFFFF, "\xF7\xBF\xBF\xBF"},
      {0x200000, "\xF8\x88\x80\x80\x80"},
      {0x3FFFFFF, "\xFB\xBF\xBF\xBF\xBF"},
      {0x4000000, "\xFC\x84\x80\x80\x80\x80"},
      {0x7FFFFFFF, "\xFD\xBF\xBF\xBF\xBF\xBF"},
  };
  for (const auto& [value, bytes] : characters) {
    SCOPED_TRACE(testing::PrintToString(bytes));
    const int length = static_cast<int>(bytes.size());
    char encoded[kUtf8MaxLength];
    ASSERT_EQ(utf8_wctomb(encoded, value), length);
    EXPECT_EQ(std::string(encoded, bytes.size()), bytes);
    wchar_t decoded = -1;
    EXPECT_EQ(utf8_mbtowc(&decoded, bytes.data(), bytes.size()), length);
    EXPECT_EQ(decoded, value);
    EXPECT_EQ(utf8_mblen(bytes.data(), bytes.size() - 1), -1);
  }
}

TEST(Utf8Codec, NulsNullsAndValuesOutOfRange) {
  char encoded[kUtf8MaxLength];
  wchar_t decoded = -1;
  EXPECT_EQ(utf8_mbtowc(&decoded, "", 1), 0);
  EXPECT_EQ(decoded, 0);
  EXPECT_EQ(is_utf8_mb("a\0日", 5), 1) << "a NUL is a character";
  EXPECT_EQ(utf8_wctomb(encoded, static_cast<wchar_t>(0x80000000)), -1);
  EXPECT_EQ(utf8_wctomb(nullptr, L'a'), 0);
  EXPECT_EQ(utf8_mblen(nullptr, 1), -1);
  EXPECT_EQ(utf8_mbslen(nullptr), 0);
  EXPECT_EQ(num_chars_in_utf8_str(nullptr), 0);
}

TEST(Utf8Codec, ValidityAndCounts) {
  const struct {
    std::string text;
    int characters;  // -1 when it is not valid
    int leads;       // characters by their lead bytes alone
    size_t whole;    // bytes without a cut character at the end
  } cases[] = {
      {"", 0, 0, 0},
      {"a日", 2, 2, 4},
      {"\xC0\x80", -1, 1, 2},  // longer than a NUL needs
      {"\xE0\x9F\xBF", -1, 1, 3},
      {"\xF0\x8F\xBF\xBF", -1, 1, 4},
      {"\xF8\x87\xBF\xBF\xBF", -1, 1, 5},
      {"\xFC\x83\xBF\xBF\xBF\xBF", -1, 1, 6},
      {"a\xE6\x97", -1, -1, 1},
      {"\xE6\x97z", -1, 1, 3},
      {"\x80\x80\x80", -1, -1, 3},
      {"\xFE\x80\x80\x80\x80\x80\x80", -1, -1, 7},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(testing::PrintToString(each.text));
    const int valid = each.characters >= 0 ? 1 : 0;
    EXPECT_EQ(utf8_mbslen(each.text.c_str()), each.characters);
    EXPECT_EQ(is_utf8_mbs(each.text.c_str()), valid);
    EXPECT_EQ(num_chars_in_utf8_str(each.text.c_str()), each.leads);
    EXPECT_EQ(utf8_whole_length(each.text.data(), each.text.size()), each.whole);
  }
}

TEST(Ascii, CaseOfLettersAlone) {
  char text[] = "@AZ[`az{\xC4";
  lower_ascii(text);
  EXPECT_STREQ(text, "@az[`az{\xC4");
  EXPECT_TRUE(same_ignoring_case("udp", "UdP"));
  EXPECT_FALSE(same_ignoring_case("udp", "ud"));
  EXPECT_FALSE(same_ignoring_case("@", "`"));
}

TEST(Utf8Wide, InEverySizeOfArea) {
  const wchar_t text[] = {L'a', static_cast<wchar_t>(0x80000000), L'é', 0};
  EXPECT_EQ(utf8_wcstombs(nullptr, text, 0), 4U);
  const std::string bytes_of[] = {"", "a", "a?", "a?", "a?é", "a?é"};
  for (size_t capacity = 1; capacity <= std::size(bytes_of); ++capacity) {
    char bytes[8];
    EXPECT_EQ(utf8_wcstombs(bytes, text, capacity), bytes_of[capacity - 1].size());
    EXPECT_EQ(bytes, bytes_of[capacity - 1]);
    wchar_t wide[8];
    const std::wstring wanted(L"a?é", std::min<size_t>(capacity - 1, 3));
    EXPECT_EQ(utf8_mbstowcs(wide, "a\xFFé", capacity), wanted.size());
    EXPECT_EQ(wide, wanted);
  }
}

TEST(Utf8Wide, NothingIsStoredWithoutTextOrRoom) {
  wchar_t wide = L'!';
  char byte = '!';
  EXPECT_EQ(utf8_mbstowcs(nullptr, "a", 2), 0U);
  EXPECT_EQ(utf8_mbstowcs(&wide, nullptr, 1), 0U);
  EXPECT_EQ(utf8_mbstowcs(&wide, "a", 0), 0U);
  EXPECT_EQ(utf8_wcstombs(&byte, nullptr, 1), 0U);
  EXPECT_EQ(utf8_wcstombs(&byte, L"a", 0), 0U);
  EXPECT_EQ(wide, L'!');
  EXPECT_EQ(byte, '!');
}

TEST(Utf8Wide, WholeStrings) {
  for (const std::wstring& text : {std::wstring(L"ab"), std::wstring(1, 0x7FFFFFFF)}) {
    const c_unique_ptr<char> bytes(wcs_to_utf8(text.c_str()));
    EXPECT_EQ(c_unique_ptr<wchar_t>(utf8_to_wcs(bytes.get())).get(), text);
  }
}

TEST(CharColumns, OfEveryRange) {
  const struct {
    wchar_t first, last;
    int columns;
  } ranges[] = {{0x01, 0x2FFF, 1},   {0x3000, 0xFAFF, 2},    {0xFB00, 0xFEFF, 1},
                {0xFF00, 0xFF5F, 2}, {0xFF60, 0xFFDF, 1},    {0xFFE0, 0xFFE7, 2},
                {0xFFE8, 0xFFFF, 1}, {0x10000, 0x1FFFFF, 2}, {0x200000, 0x7FFFFFFF, 2}};
  for (const auto& range : ranges) {
    for (const wchar_t character : {range.first, range.last}) {
      char text[8] = "a";
      const int length = utf8_wctomb(text + 1, character);
      size_t index = 1;
      EXPECT_EQ(utf8_char_columns(text, &index), range.columns) << text;
      EXPECT_EQ(index, static_cast<size_t>(length)) << "the last byte of " << text;
    }
  }
}

TEST(CharColumns, OfStrayBytesAndACutCharacter) {
  EXPECT_EQ(utf8_ttystrlen("\x80\xBF\xBF"), 3U);
  EXPECT_EQ(utf8_ttystrlen("\xEF\x7Fz\xEF\xC0z"), 2U);
  EXPECT_EQ(utf8_ttystrlen("é日a\xE6\x97"), 6U);
}

TEST(Mbt, BytesThereAndBack) {
  const struct {
    const char *raw, *carried;
  } cases[] = {{"a\x7F", "a\x7F"},
               {"\x80\xBF", "\xEF\xA2\x80\xEF\xA2\xBF"},
               {"\xC0\xFF", "\xEF\xA3\x80\xEF\xA3\xBF"}};
  for (const auto& [raw, carried] : cases) {
    char output[8];
    EXPECT_EQ(vx_mbstombts(output, raw, sizeof output), 1);
    EXPECT_STREQ(output, carried);
    EXPECT_EQ(vx_mbtstombs(output, carried, 3), 1);
    EXPECT_STREQ(output, raw);
    EXPECT_EQ(vx_mbtstombs(output, carried, 2), 0) << "no room for the terminator";
  }
}

TEST(Mbt, Nulls) {
  char output[2];
  EXPECT_EQ(vx_mbstombts(nullptr, "a", 2), 0);
  EXPECT_EQ(vx_mbstombts(output, nullptr, 2), 0);
  EXPECT_EQ(vx_mbtstombs(nullptr, "a", 2), 0);
  EXPECT_EQ(vx_mbtstombs(output, nullptr, 2), 0);
  EXPECT_EQ(containsMBT(nullptr), 0);
}

TEST(Mbt, ATransparentByteAsksForFour) {
  const struct {
    const char* raw;
    size_t least;  // bytes that the output needs
  } cases[] = {{"", 1}, {"\x41\xE9", 5}, {"\xE9\xE9", 7}};
  for (const auto& [raw, least] : cases) {
    char output[16];
    EXPECT_EQ(vx_mbstombts(output, raw, least - 1), 0) << raw;
    EXPECT_EQ(vx_mbstombts(output, raw, least), 1) << raw;
  }
}

TEST(Mbt, OtherBytesAreNotRestored) {
  const struct {
    const char* text;
    int contains;  // a transparent byte
  } cases[] = {{"\xEF\xA1\x80", 0},
               {"\xEF\xA2", 0},
               {"\xEF\xA2\xC0", 0},
               {"\xEF\xA2z\xEF\xA2\x80", 0},  // the first one decides
               {"\xEF\xBC\x81\xEF\xA2\x80", 1}};
  for (const auto& [text, contains] : cases) {
    char output[16];
    EXPECT_EQ(containsMBT(text), contains) << testing::PrintToString(text);
    EXPECT_EQ(vx_mbtstombs(output, text, sizeof output), 0) << testing::PrintToString(text);
  }
}

}  // namespace

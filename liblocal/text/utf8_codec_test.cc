// UTF-8 characters, their columns, wide characters and transparent bytes.
#include "liblocal/text/utf8_codec.h"

#include <gtest/gtest.h>

#include <string>

#include "liblocal/base/c_memory.h"
#include "liblocal/text/ascii.h"
#include "liblocal/text/mbt.h"
#include "liblocal/text/utf8_columns.h"
#include "liblocal/text/utf8_wide.h"

namespace {

TEST(Ascii, KnowsWhiteSpace) {
  for (const char white : {' ', '\t', '\r'}) EXPECT_EQ(vxisspace(white), 1);
  for (const char other : {'\b', '\x0E', 'a'}) EXPECT_EQ(vxisspace(other), 0);
}

// The first and the last character of each range, which have that many bytes and columns.
TEST(Utf8Codec, EncodesDecodesAndMeasures) {
  const struct {
    wchar_t first, last;
    size_t bytes;
    int columns;
  } ranges[] = {
      {0x01, 0x7F, 1, 1},           {0x80, 0x7FF, 2, 1},       {0x800, 0x2FFF, 3, 1},
      {0x3000, 0xF000, 3, 2},       {0xF001, 0xFAFF, 3, 2},    {0xFB00, 0xFEFF, 3, 1},
      {0xFF00, 0xFF5F, 3, 2},       {0xFF60, 0xFFDF, 3, 1},    {0xFFE0, 0xFFE7, 3, 2},
      {0xFFE8, 0xFFFF, 3, 1},       {0x10000, 0x1FFFFF, 4, 2}, {0x200000, 0x3FFFFFF, 5, 2},
      {0x4000000, 0x7FFFFFFF, 6, 2}};
  for (const auto& range : ranges) {
    for (const wchar_t character : {range.first, range.last}) {
      char text[8] = "a";
      const int length = utf8_wctomb(text + 1, character);
      size_t index = 1;
      EXPECT_EQ(utf8_char_columns(text, &index), range.columns);
      EXPECT_EQ(index, range.bytes);
      wchar_t decoded = -1;
      EXPECT_EQ(utf8_mbtowc(&decoded, text + 1, range.bytes), length);
      EXPECT_EQ(decoded, character);
      EXPECT_EQ(utf8_mblen(text + 1, range.bytes - 1), -1);
    }
  }
}

TEST(Utf8Codec, NulsNullsAndAValueOutOfRange) {
  char encoded[6];
  EXPECT_EQ(utf8_mblen("", 1), 0);
  EXPECT_EQ(is_utf8_mb("a\0日", 5), 1);
  EXPECT_EQ(is_utf8_mb("日", 1), 0);
  EXPECT_EQ(utf8_wctomb(encoded, static_cast<wchar_t>(0x80000000)), -1);
  EXPECT_EQ(utf8_wctomb(nullptr, L'a'), 0);
  EXPECT_EQ(utf8_mbslen(nullptr), 0);
  EXPECT_EQ(num_chars_in_utf8_str(nullptr), 0);
}

TEST(Utf8Codec, ValidityAndCounts) {
  const struct {
    std::string text;
    int characters;  // -1 when it is not valid
    int leads;       // characters by their lead bytes alone
    size_t whole;    // bytes without a cut character at the end
    // The second one is longer than a NUL needs.
  } cases[] = {{"a日b", 3, 3, 5},
               {"\xC0\x80", -1, 1, 2},
               {"", 0, 0, 0},
               {"\xE6\x97", -1, -1, 0},
               {"\xE6\x97\xE6", -1, 1, 2},
               {"\xFE\x80\x80\x80\x80\x80\x80", -1, -1, 7}};
  for (const auto& [text, characters, leads, whole] : cases) {
    EXPECT_EQ(utf8_mbslen(text.c_str()), characters);
    EXPECT_EQ(is_utf8_mbs(text.c_str()), characters >= 0 ? 1 : 0);
    EXPECT_EQ(num_chars_in_utf8_str(text.c_str()), leads);
    EXPECT_EQ(utf8_whole_length(text.data(), text.size()), whole);
  }
}

TEST(Utf8Wide, AreasHoldWholeCharacters) {
  const wchar_t text[] = {L'a', static_cast<wchar_t>(0x80000000), L'é', 0};
  char bytes[8] = "!";
  wchar_t wide[8];
  EXPECT_EQ(utf8_wcstombs(nullptr, text, 0), 4U);  // the bytes that it takes
  EXPECT_EQ(utf8_wcstombs(bytes, text, 0), 0U);
  EXPECT_STREQ(bytes, "!");
  EXPECT_EQ(utf8_wcstombs(bytes, text, 4), 2U);
  EXPECT_STREQ(bytes, "a?");
  EXPECT_EQ(utf8_mbstowcs(wide, "a\xFFé", 3), 2U);
  EXPECT_STREQ(wide, L"a?");
}

TEST(Utf8Wide, WholeStringsAndNulls) {
  EXPECT_STREQ(c_unique_ptr<char>(wcs_to_utf8(L"\x7FFFFFFF")).get(), "\xFD\xBF\xBF\xBF\xBF\xBF");
  EXPECT_STREQ(c_unique_ptr<wchar_t>(utf8_to_wcs("\xFFz")).get(), L"?z");
  EXPECT_EQ(wcs_to_utf8(nullptr), nullptr);
  EXPECT_EQ(utf8_to_wcs(nullptr), nullptr);
  wchar_t wide = L'!';
  EXPECT_EQ(utf8_mbstowcs(nullptr, "a", 2), 0U);
  EXPECT_EQ(utf8_mbstowcs(&wide, "a", 0), 0U);
  EXPECT_EQ(wide, L'!');
}

TEST(CharColumns, OfStrayBytesAndACutCharacter) {
  EXPECT_EQ(utf8_ttystrlen("\x80\xBF\xBF"), 3U);
  EXPECT_EQ(utf8_ttystrlen("\xEF\x7F\x80\xEF\xC0z"), 2U);
  EXPECT_EQ(utf8_ttystrlen("é日a\xE6\x97"), 6U);
}

TEST(Mbt, BytesThereAndBack) {
  const char *raw = "a\x80\xBF\xC0\xFF",
             *carried = "a\xEF\xA2\x80\xEF\xA2\xBF\xEF\xA3\x80\xEF\xA3\xBF";
  char output[16];
  EXPECT_EQ(vx_mbstombts(output, raw, sizeof output), 1);
  EXPECT_STREQ(output, carried);
  EXPECT_EQ(vx_mbtstombs(output, carried, 6), 1);
  EXPECT_STREQ(output, raw);
  EXPECT_EQ(containsMBT(carried), 1);
}

TEST(Mbt, NullsAndAreasThatAreTooSmall) {
  char output[8];
  EXPECT_EQ(vx_mbstombts(output, "", 0), 0);
  EXPECT_EQ(vx_mbstombts(output, "a\xE9", 5), 1);
  EXPECT_EQ(vx_mbstombts(output, "a\xE9", 4), 0);  // a transparent byte asks for four
  EXPECT_EQ(vx_mbstombts(nullptr, "a", 5), 0);
  EXPECT_EQ(vx_mbtstombs(nullptr, "a", 5), 0);
  EXPECT_EQ(vx_mbtstombs(output, nullptr, 5), 0);
  EXPECT_EQ(containsMBT(nullptr), 0);
  for (size_t size : {0U, 1U, 2U}) EXPECT_EQ(vx_mbtstombs(output, "ab", size), 0);
}

TEST(Mbt, OtherBytesAreNotRestored) {
  char output[16];
  // The last one is broken, and so decides.
  for (const char* text : {"\x80", "\xEF\xA1\x80", "\xEF\xA2", "\xEF\xA2z\xEF\xA2\x80"}) {
    EXPECT_EQ(containsMBT(text), 0);
    EXPECT_EQ(vx_mbtstombs(output, text, sizeof output), 0);
  }
}

}  // namespace

#include "liblocal/text/utf8_codec.h"

#include <gtest/gtest.h>

#include <string>

#include "liblocal/text/utf8_wide.h"
#include "liblocal/threads/c_memory.h"
#include "tests/failing_malloc.h"

namespace {

void expect_round_trip(uint32_t value, int length) {
  char bytes[kUtf8MaxLength];
  wchar_t decoded = -1;
  ASSERT_EQ(utf8_wctomb(bytes, static_cast<wchar_t>(value)), length) << value;
  ASSERT_EQ(utf8_mbtowc(&decoded, bytes, sizeof bytes), value == 0 ? 0 : length) << value;
  ASSERT_EQ(static_cast<uint32_t>(decoded), value);
  for (int cut = 0; cut < length; ++cut) {
    ASSERT_EQ(utf8_mblen(bytes, static_cast<size_t>(cut)), -1) << value;
  }
}

TEST(Utf8Codec, EveryCodePointAndEveryBoundary) {
  for (uint32_t value = 0; value <= 0x10FFFF; ++value) {
    expect_round_trip(value, value < 0x80 ? 1 : value < 0x800 ? 2 : value < 0x10000 ? 3 : 4);
  }
  expect_round_trip(0x1FFFFF, 4);
  expect_round_trip(0x200000, 5);
  expect_round_trip(0x3FFFFFF, 5);
  expect_round_trip(0x4000000, 6);
  expect_round_trip(0x7FFFFFFF, 6);
  char bytes[] = "......";
  EXPECT_EQ(utf8_wctomb(bytes, static_cast<wchar_t>(0x80000000)), -1);
  utf8_wctomb(bytes, 0x7FFFFFFF);
  EXPECT_STREQ(bytes, "\xFD\xBF\xBF\xBF\xBF\xBF");
}

TEST(Utf8Codec, ValidityAndCounts) {
  const struct {
    std::string text;
    int characters;  // -1: invalid
    int by_leads;
    size_t whole;  // bytes, less a cut character
  } cases[] = {
      {"", 0, 0, 0},
      {"a日", 2, 2, 4},
      {"\xC0\x80", -1, 1, 2},          // longer than a NUL needs
      {"\xE0\x9F\xBF", -1, 1, 3},      // than 0x7FF
      {"\xF0\x8F\xBF\xBF", -1, 1, 4},  // than 0xFFFF
      {"\xF8\x87\xBF\xBF\xBF", -1, 1, 5},
      {"\xFC\x83\xBF\xBF\xBF\xBF", -1, 1, 6},
      {"a\xE6\x97", -1, -1, 1},
      {"\xFD\xBF\xBF\xBF\xBF", -1, -1, 0},
      {"\xE6\x97z", -1, 1, 3},
      {"\x80\x80\x80", -1, -1, 3},
      {"\xFE\x80\x80\x80\x80\x80\x80", -1, -1, 7},
      {"\xFF", -1, -1, 1},
      {"\xED\xA0\x80", 1, 1, 3},  // any value of the form
  };
  for (const auto& [text, characters, by_leads, whole] : cases) {
    SCOPED_TRACE(testing::PrintToString(text));
    EXPECT_EQ(utf8_mbslen(text.c_str()), characters);
    EXPECT_EQ(is_utf8_mbs(text.c_str()), characters >= 0 ? 1 : 0);
    EXPECT_EQ(is_utf8_mb(text.data(), text.size()), characters >= 0 ? 1 : 0);
    EXPECT_EQ(num_chars_in_utf8_str(text.c_str()), by_leads);
    EXPECT_EQ(utf8_whole_length(text.data(), text.size()), whole);
  }
  EXPECT_EQ(is_utf8_mb("a\0日", 5), 1) << "a NUL is a character";
}

TEST(Utf8Wide, InEverySizeOfArea) {
  const wchar_t text[] = {L'a', static_cast<wchar_t>(0x80000000), L'日', L'é', 0};
  const std::string wanted = "a?日é";
  EXPECT_EQ(utf8_wcstombs(nullptr, text, 0), wanted.size());
  for (size_t capacity = 1; capacity <= 9; ++capacity) {
    wchar_t wide[9];
    const size_t stored = std::min<size_t>(capacity - 1, 4);
    EXPECT_EQ(utf8_mbstowcs(wide, "a\xFF日é", capacity), stored);
    EXPECT_EQ(std::wstring(wide), std::wstring(L"a?日é", stored));
    char bytes[9];
    const size_t length = utf8_whole_length(wanted.data(), std::min(wanted.size(), capacity - 1));
    EXPECT_EQ(utf8_wcstombs(bytes, text, capacity), length);
    EXPECT_EQ(std::string(bytes), wanted.substr(0, length));
  }
}

TEST(Utf8Wide, WholeStrings) {
  const std::wstring all = std::wstring(3000, L'é') + static_cast<wchar_t>(0x7FFFFFFF);
  c_unique_ptr<char> bytes(wcs_to_utf8(all.c_str()));
  c_unique_ptr<wchar_t> wide(utf8_to_wcs(bytes.get()));
  EXPECT_EQ(std::wstring(wide.get()), all);
  FailingMalloc failing(0);
  EXPECT_TRUE(wcs_to_utf8(L"a") == nullptr && utf8_to_wcs("a") == nullptr);
}

}  // namespace

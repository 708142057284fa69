#include "liblocal/utf8_codec.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "liblocal/utf8_wide.h"
#include "tests/failing_malloc.h"

namespace {

std::string encoded(uint32_t value) {
  char bytes[kUtf8MaxLength];
  int length = utf8_wctomb(bytes, static_cast<wchar_t>(value));
  return length < 0 ? "invalid" : std::string(bytes, static_cast<size_t>(length));
}

void expect_round_trip(uint32_t value, int length) {
  const std::string bytes = encoded(value);
  wchar_t decoded = -1;
  ASSERT_EQ(static_cast<int>(bytes.size()), length) << value;
  ASSERT_EQ(utf8_mbtowc(&decoded, bytes.data(), bytes.size()), value == 0 ? 0 : length) << value;
  ASSERT_EQ(static_cast<uint32_t>(decoded), value);
  for (size_t cut = 1; cut < bytes.size(); ++cut) {
    ASSERT_EQ(utf8_mblen(bytes.data(), cut), -1) << value;
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
  EXPECT_EQ(encoded(0x7FFFFFFF), "\xFD\xBF\xBF\xBF\xBF\xBF");
  EXPECT_EQ(encoded(0x80000000), "invalid");
  EXPECT_EQ(utf8_wctomb(nullptr, L'a'), 0);
}

TEST(Utf8Codec, ValidityAndCounts) {
  const struct {
    std::string text;
    int characters;  // -1: invalid
    int by_leads;
  } cases[] = {
      {"", 0, 0},
      {"a日", 2, 2},
      {"\xC0\x80", -1, 1},          // longer than a NUL needs
      {"\xC1\xBF", -1, 1},          // than 0x7F
      {"\xE0\x9F\xBF", -1, 1},      // than 0x7FF
      {"\xF0\x8F\xBF\xBF", -1, 1},  // than 0xFFFF
      {"\xF8\x87\xBF\xBF\xBF", -1, 1},
      {"\xFC\x83\xBF\xBF\xBF\xBF", -1, 1},
      {"\xE6\x97", -1, -1},
      {"\xE6\x97z", -1, 1},
      {"\x80", -1, -1},
      {"\xBF", -1, -1},
      {"\xFE\x80\x80\x80\x80\x80\x80", -1, -1},
      {"\xFF", -1, -1},
      {"\xED\xA0\x80", 1, 1},  // any value of the form
  };
  for (const auto& [text, characters, by_leads] : cases) {
    SCOPED_TRACE(testing::PrintToString(text));
    EXPECT_EQ(utf8_mbslen(text.c_str()), characters);
    EXPECT_EQ(is_utf8_mbs(text.c_str()), characters >= 0 ? 1 : 0);
    EXPECT_EQ(is_utf8_mb(text.data(), text.size()), characters >= 0 ? 1 : 0);
    EXPECT_EQ(num_chars_in_utf8_str(text.c_str()), by_leads);
  }
  EXPECT_EQ(utf8_mblen("日", 0), -1);
  EXPECT_EQ(is_utf8_mb("a\0日", 5), 1) << "a NUL is a character";
  EXPECT_EQ(is_utf8_mb("日", 2), 0);
  EXPECT_EQ(utf8_mbslen(nullptr) + num_chars_in_utf8_str(nullptr), 0);
}

TEST(Utf8Codec, WhatIsWhole) {
  const std::string text = "aé日\xF0\x9F\x98\x80";
  const size_t wanted[] = {0, 1, 1, 3, 3, 3, 6, 6, 6, 6, 10};
  for (size_t length = 0; length <= text.size(); ++length) {
    EXPECT_EQ(utf8_whole_length(text.data(), length), wanted[length]);
  }
  EXPECT_EQ(utf8_whole_length("\x80\x80\x80", 3), 3U) << "no character at all";
  int spaces = 0;
  for (int c = -1; c < 256; ++c) spaces += vxisspace(c);
  EXPECT_EQ(spaces, 6);
  EXPECT_TRUE(vxisspace('\v') && vxisspace(' '));
}

TEST(Utf8Wide, BothWays) {
  wchar_t wide[8];
  for (size_t capacity = 1; capacity <= 8; ++capacity) {
    wide[capacity - 1] = L'x';
    size_t stored = std::min<size_t>(capacity - 1, 5);
    EXPECT_EQ(utf8_mbstowcs(wide, "a\xFF日é\x80", capacity), stored);
    EXPECT_EQ(std::wstring(wide), std::wstring(L"a?日é?", stored));
  }
  const wchar_t text[] = {L'a', static_cast<wchar_t>(0x80000000), L'日', L'é', 0};
  const std::string wanted = "a?日é";
  EXPECT_EQ(utf8_wcstombs(nullptr, text, 0), wanted.size());
  for (size_t capacity = 1; capacity <= 9; ++capacity) {
    char bytes[9];
    size_t length = utf8_whole_length(wanted.data(), std::min(wanted.size(), capacity - 1));
    EXPECT_EQ(utf8_wcstombs(bytes, text, capacity), length);
    EXPECT_EQ(std::string(bytes), wanted.substr(0, length));
  }
  EXPECT_EQ(utf8_mbstowcs(nullptr, "a", 1) + utf8_mbstowcs(wide, nullptr, 1), 0U);
  EXPECT_EQ(utf8_wcstombs(nullptr, nullptr, 0), 0U);
}

TEST(Utf8Wide, WholeStrings) {
  std::wstring all(3000, L'é');
  all += static_cast<wchar_t>(0x7FFFFFFF);
  char* bytes = wcs_to_utf8(all.c_str());
  wchar_t* wide = utf8_to_wcs(bytes);
  EXPECT_EQ(std::wstring(wide), all);
  free(bytes);
  free(wide);
  EXPECT_TRUE(wcs_to_utf8(nullptr) == nullptr && utf8_to_wcs(nullptr) == nullptr);
  FailingMalloc failing(0);
  EXPECT_TRUE(wcs_to_utf8(L"a") == nullptr && utf8_to_wcs("a") == nullptr);
}

}  // namespace

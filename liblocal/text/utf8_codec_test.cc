#include "liblocal/text/utf8_codec.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sstream>
#include <string>
#include <tuple>

#include "liblocal/base/c_memory.h"
#include "liblocal/text/ascii.h"
#include "liblocal/text/mbt.h"
#include "liblocal/text/utf8_columns.h"
#include "liblocal/text/utf8_wide.h"
#include "tests/fakes.h"

namespace {

TEST(Utf8Codec, EveryCodePointAndEveryBoundaryThereAndBack) {
  const uint32_t least[] = {0x80, 0x800, 0x10000, 0x200000, 0x4000000};  // of 2 to 6 bytes
  auto expect_round_trip = [&](uint32_t value) {
    int length = 1;
    for (uint32_t limit : least) length += value >= limit ? 1 : 0;
    char bytes[kUtf8MaxLength];
    wchar_t decoded = -1;
    ASSERT_EQ(utf8_wctomb(bytes, static_cast<wchar_t>(value)), length) << value;
    ASSERT_EQ(utf8_mbtowc(&decoded, bytes, sizeof bytes), value == 0 ? 0 : length) << value;
    ASSERT_EQ(static_cast<uint32_t>(decoded), value);
    for (size_t cut = 0; cut < static_cast<size_t>(length); ++cut) {
      ASSERT_EQ(utf8_mblen(bytes, cut), -1) << value;
    }
  };
  for (uint32_t value = 0; value <= 0x10FFFF; ++value) expect_round_trip(value);
  for (uint32_t limit : least) expect_round_trip(limit), expect_round_trip(limit - 1);
  char bytes[] = "......";
  EXPECT_EQ(utf8_wctomb(bytes, static_cast<wchar_t>(0x80000000)), -1);
  EXPECT_EQ(utf8_wctomb(bytes, 0x7FFFFFFF), 6);
  EXPECT_STREQ(bytes, "\xFD\xBF\xBF\xBF\xBF\xBF");
  EXPECT_TRUE(utf8_wctomb(nullptr, L'a') == 0 && utf8_mblen(nullptr, 1) == -1);
}

TEST(Utf8Codec, ValidityAndCounts) {
  const std::tuple<std::string, int, int, size_t> cases[] = {
      {"", 0, 0, 0},  // characters, or -1, and by leads; bytes, less a cut character
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
  EXPECT_TRUE(utf8_mbslen(nullptr) == 0 && num_chars_in_utf8_str(nullptr) == 0);
  for (int c = -1; c < 256; ++c) {
    EXPECT_EQ(vxisspace(c), std::string(" \t\n\v\f\r").find(static_cast<char>(c)) < 6 ? 1 : 0) << c;
  }
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
  wchar_t none = L'!';
  EXPECT_EQ(utf8_mbstowcs(nullptr, "a", 2) + utf8_mbstowcs(&none, nullptr, 1), 0U);
  EXPECT_TRUE(utf8_mbstowcs(&none, "a", 0) == 0 && none == L'!');
}

TEST(Utf8Wide, WholeStrings) {
  for (const std::wstring& text : {std::wstring(L"ab"), std::wstring(1, 0x7FFFFFFF)}) {
    const c_unique_ptr<char> bytes(wcs_to_utf8(text.c_str()));
    EXPECT_EQ(c_unique_ptr<wchar_t>(utf8_to_wcs(bytes.get())).get(), text);
  }
  EXPECT_TRUE(wcs_to_utf8(nullptr) == nullptr && utf8_to_wcs(nullptr) == nullptr);
  fakes::FailingMalloc failing(0);
  errno = 0;
  EXPECT_TRUE(wcs_to_utf8(L"a") == nullptr && utf8_to_wcs("a") == nullptr && errno == ENOMEM);
}

TEST(CharColumns, EveryBoundary) {
  // The first and the last character of each range, of one column and of two.
  const char* const ranges[] = {
      "\x01 \x7F \x80 \xBF \xC0\x80 \xDF\xBF \xE0\xA0\x80 \xE2\xBF\xBF \xEF\xAC\x80 \xEF\xBB\xBF "
      "\xEF\xBD\xA0 \xEF\xBD\xBF \xEF\xBE\x80 \xEF\xBE\xBF \xEF\xBF\x80 \xEF\xBF\x9F "
      "\xEF\xBF\xA8 \xEF\xBF\xBF \xEF\x01z \xEF\x7Fz \xEF\xC0z \xEF\xFFz",
      "\xE3\x80\x80 \xEE\xBF\xBF \xEF\x80\x80 \xEF\xAB\xBF \xEF\xBC\x80 \xEF\xBC\xBF "
      "\xEF\xBD\x80 \xEF\xBD\x9F \xEF\xBF\xA0 \xEF\xBF\xA7 \xF0\x90\x80\x80 \xF7\xBF\xBF\xBF "
      "\xF8\x88\x80\x80\x80 \xFB\xBF\xBF\xBF\xBF \xFC\x84\x80\x80\x80\x80 "
      "\xFF\xBF\xBF\xBF\xBF\xBF"};
  for (int columns : {1, 2}) {
    std::istringstream characters(ranges[columns - 1]);
    for (std::string character; characters >> character;) {
      size_t index = 1;
      EXPECT_EQ(utf8_char_columns(("a" + character).c_str(), &index), columns) << character;
      EXPECT_EQ(index, character.size()) << character;
    }
  }
  EXPECT_EQ(utf8_ttystrlen("é日a\xE6\x97"), 6U) << "a cut character counts too";
}

TEST(Mbt, EveryByteThereAndBack) {
  std::string raw, wanted;
  for (int byte = 1; byte < 256; ++byte) {
    raw += static_cast<char>(byte);
    if (byte >= 0x80) wanted += byte < 0xC0 ? "\xEF\xA2" : "\xEF\xA3";
    wanted += static_cast<char>(byte < 0x80 ? byte : byte & 0xBF);
  }
  char carried[1024], back[256];
  EXPECT_TRUE(vx_mbstombts(carried, raw.c_str(), sizeof carried) == 1 && carried == wanted);
  EXPECT_TRUE(vx_mbtstombs(back, carried, sizeof back) == 1 && back == raw);
  EXPECT_EQ(vx_mbtstombs(back, carried, sizeof back - 1), 0);
  for (const auto& [text, least] : {std::pair{"", 1U}, {"\x41\xE9", 5U}, {"\xE9\xE9", 7U}}) {
    EXPECT_EQ(vx_mbstombts(back, text, least - 1) + 2 * vx_mbstombts(back, text, least), 2);
  }
  EXPECT_EQ(vx_mbstombts(nullptr, "a", 2) + vx_mbstombts(back, nullptr, 2) +
                vx_mbtstombs(nullptr, "a", 2) + vx_mbtstombs(back, nullptr, 2),
            0);
}

TEST(Mbt, WhatIsOne) {
  const std::tuple<const char*, int, int> cases[] = {
      {"a\xEF\xA3\xBFz", 1, 1},  // text, whether it contains one, whether it is restored
      {"\xEF\xA1\x80", 0, 0},
      {"\xEF\xA2", 0, 0},
      {"\xEF\xA2\xC0", 0, 0},
      {"", 0, 1},
      {"\xEF\xA2z\xEF\xA2\x80", 0, 0},  // the first one decides
      {"\xEF\xBC\x81\xEF\xA2\x80", 1, 0}};
  char output[16];
  for (const auto& [text, contains, restores] : cases) {
    EXPECT_EQ(containsMBT(text), contains) << testing::PrintToString(text);
    EXPECT_EQ(vx_mbtstombs(output, text, sizeof output), restores) << testing::PrintToString(text);
  }
  EXPECT_EQ(containsMBT(nullptr), 0);
}

}  // namespace

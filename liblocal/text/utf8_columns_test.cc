#include "liblocal/text/utf8_columns.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(CharColumns, EveryBoundary) {
  // The first and the last character of each range, and what both take.
  const struct {
    std::string first, last;
    int columns;
    size_t steps;
  } cases[] = {
      {"\x01", "\x7F", 1, 0},
      {"\x80", "\xBF", 1, 0},
      {"\xC0\x80", "\xDF\xBF", 1, 1},
      {"\xE0\xA0\x80", "\xE2\xBF\xBF", 1, 2},
      {"\xE3\x80\x80", "\xEE\xBF\xBF", 2, 2},
      {"\xEF\x80\x80", "\xEF\xAB\xBF", 2, 2},
      {"\xEF\xAC\x80", "\xEF\xBB\xBF", 1, 2},
      {"\xEF\xBC\x80", "\xEF\xBC\xBF", 2, 2},
      {"\xEF\xBD\x80", "\xEF\xBD\x9F", 2, 2},
      {"\xEF\xBD\xA0", "\xEF\xBD\xBF", 1, 2},
      {"\xEF\xBE\x80", "\xEF\xBE\xBF", 1, 2},
      {"\xEF\xBF\x80", "\xEF\xBF\x9F", 1, 2},
      {"\xEF\xBF\xA0", "\xEF\xBF\xA7", 2, 2},
      {"\xEF\xBF\xA8", "\xEF\xBF\xBF", 1, 2},
      {"\xF0\x90\x80\x80", "\xF7\xBF\xBF\xBF", 2, 3},
      {"\xF8\x88\x80\x80\x80", "\xFB\xBF\xBF\xBF\xBF", 2, 4},
      {"\xFC\x84\x80\x80\x80\x80", "\xFF\xBF\xBF\xBF\xBF\xBF", 2, 5},
      {std::string("\xEF\0", 2), "\xEF\x7F", 1, 2},  // no second byte of a character
      {"\xEF\xC0", "\xEF\xFF", 1, 2},
  };
  for (const auto& [first, last, columns, steps] : cases) {
    for (const std::string& character : {first, last}) {
      const std::string text = "a" + character;
      size_t index = 1;
      EXPECT_EQ(utf8_char_columns(text.c_str(), &index), columns) << testing::PrintToString(text);
      EXPECT_EQ(index, 1 + steps) << testing::PrintToString(text);
    }
  }
}

TEST(CharColumns, OfTexts) {
  const std::pair<const char*, size_t> cases[] = {
      {"", 0}, {"é日a", 4}, {"a\xE6\x97", 3}, {"\xFF", 2}};
  for (auto [text, columns] : cases) EXPECT_EQ(utf8_ttystrlen(text), columns) << text;
}

}  // namespace

#include "liblocal/text/i18n_printf.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "liblocal/base/c_memory.h"
#include "liblocal/text/vxprint.h"
#include "tests/fakes.h"
#include "tests/word_arguments.h"

namespace {

// The same in an area of its own, in a buffer, and with a '$', by way of the table of arguments.
std::string formatted(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = in_own_area(format, arguments);
  EXPECT_EQ(in_own_area(std::string("$") + format, arguments), "$" + text) << format;
  std::string buffer(text.size() + 9, '#');
  EXPECT_EQ(i18n_vsprintf(buffer.data(), nullptr, format, arguments),
            static_cast<int>(text.size()));
  EXPECT_EQ(buffer, text + '\0' + "########");
  va_end(arguments);
  return text;
}

TEST(Format, Cases) {
  char unterminated[3] = {'a', 'b', 'c'};
  const char* absent = nullptr;
  int count = 5;
  const struct {
    std::string got, wanted;
  } cases[] = {
      {formatted("%%d 100%%"), "%d 100%"},
      {formatted("%*d|%-*d|%*d|%*d", 5, 42, 5, 42, -5, 42, -1, 42), "   42|42   |42   |42"},
      {formatted("%.*f|%.*f|%Lg", 2, 1.0, -2, 1.0, 1e40L), "1.00|1.000000|1e+40"},
      {formatted("a%cb", 0), std::string("a\0b", 3)},
      {formatted("a%lsb", (std::wstring(300, L'x') + L'\x110000').c_str()), "ab"},
      {formatted("%9000.0f|%15000d", 1.0, 2),
       std::string(8999, ' ') + "1|" + std::string(14999, ' ') + "2"},
      // Columns.
      {formatted("%-6s|%6s|%5.3s|", "日本", "日本", "日本"), "日本  |  日本|   日|"},
      {formatted("%.3s|%.4s|%.1s|%.0s|%.s", "日本", "日本", "日本", "日本", "日本"), "日|日本|||"},
      {formatted("%.*s|%.*s|%.*s", 2, "abc", -1, "abc", -7, "abc"), "ab|abc|abc"},
      {formatted("%.3s", unterminated), "abc"},
      {formatted("%04s|%-04s|%0-4s|%*s|", "a", "a", "a", -4, "a"), "   a|   a|a   |a|"},
      {formatted("%6s|%.2s|%1s|%1s", absent, absent, "abc", ""), "  null|nu|abc| "},
      // Characters that the end of the text cuts off.
      {formatted("%.9s|%.9s|%4s", "\xE6", "\xE6\x97", "\xF0\x9F"), "|\xE6\x97|  \xF0\x9F"},
      // Positions.
      {formatted("%2$s %s %1$d", 1, "two", "three"), "two three 1"},
      {formatted("%2$*1$s|%3$*s", 3, "日", 2, "x"), " 日| x"},
      {formatted("%3$s", 1, 2, "c"), "c"},    // 1 and 2 are skipped
      {formatted("%1$s %1$d", 5), "null 5"},  // one argument, one type
      {formatted("%1$d %1$s", "a"), "0 a"},
      {formatted("%2$f %2$d %1$f %1$Lf", 0.5L, 3), "0.000000 3 0.000000 0.500000"},
      // What is no conversion, or not the platform's.
      {formatted("a%-"), "a"},
      {formatted("a%l", 1L), "a"},
      {formatted("%lld|%hhd|%zu", 1L, 2, 3L), "d|d|u"},
      {formatted("%0300lc|%0300C|", 0x65E5L, 0x65E5), "||"},  // which the locale lacks
      {formatted("%\xDE\xDE\xDE%-9ls|", L"日"), "|"},         // fails midway
      {formatted("%n%hn%ln|%d", 1, 2, &count, 3), "|3"},
      {formatted("%S%hs%hf%hp|%d", 1, 2, 3, 4, 5), "|5"},
      {formatted("%Ld%Ls|%d", 1.0L, 2.0L, 3), "|3"},
      {formatted("%y %5%d", 1, 2), "%y %d"},
      {formatted(("%" + std::string(1000, '-') + "3d|").c_str(), 1), "1  |"}};
  for (const auto& [got, wanted] : cases) EXPECT_EQ(got, wanted);
  EXPECT_EQ(count, 5);
}

TEST(Format, AWidthBelowAllBoundsPrintsNothingAndDropsNothing) {
  EXPECT_EQ(formatted("a%*db", INT_MIN, 42), "ab");
  EXPECT_EQ(formatted("a%*sb", INT_MIN, "x"), "axb");
}

TEST(Format, PositionsWithoutEnd) {
  const std::vector<uint64_t> sevens(600, 7);
  va_list list;
  start_word_arguments(list, sevens.data());
  std::string many = "$", wanted = "$";
  for (int i = 1; i <= 300; ++i) many += "%d,", wanted += i <= 255 ? "7," : "0,";
  many += "%254$d %d %d %256$s %0$*1$d|%99999999999999999999$d|%1$*256$.*999$d|%-0$d";
  EXPECT_EQ(in_own_area(many, list), wanted + "7 7 0 null 0000000|0|7|7");
  char text[8];
  EXPECT_TRUE(vxvsprintf(text, "%#x|", list) == 4 && strcmp(text, "0x7|") == 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(vxvprintf("%d|", list), 2);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "7|");
}

TEST(Format, RefusedMemory) {
  const std::string text(20000, 'x');
  const uint64_t words[] = {5, reinterpret_cast<uint64_t>(text.c_str())};
  va_list list;
  start_word_arguments(list, words);
  char none, *area = &none;
  EXPECT_EQ((fakes::FailingMalloc(0), i18n_vsprintf(nullptr, &area, "abc", list)), 0);
  EXPECT_EQ(area, nullptr);
  for (const char* format : {"ab%d%2$s", "ab%d%30000d", "ab%d%.30000f", "ab%d%99999999999d"}) {
    fakes::FailingMalloc failing(1);
    EXPECT_EQ(i18n_vsprintf(nullptr, &area, format, list), 3) << format;
    EXPECT_STREQ(c_unique_ptr<char>(area).get(), "ab5") << format;
  }
  EXPECT_EQ(i18n_vsprintf(nullptr, nullptr, "%d%s", list), 20001) << "counted only";
}

TEST(Format, MadeUpFormatsAsThePlatformHasThem) {
  static const char* const letters[] = {"d",  "i",  "u",  "x", "X", "o", "c",  "hd", "hx",
                                        "ld", "lu", "lX", "p", "e", "G", "lf", "a"};
  const uint64_t values[] = {0, 1, 42, 65, UINT64_MAX, INT_MAX, 1U << 31, INT64_MAX, 1ULL << 63};
  std::minstd_rand randomness;
  auto below = [&](size_t limit) { return randomness() % limit; };
  for (int round = 0; round < 40000; ++round) {
    const bool positional = below(2) == 0;
    std::vector<uint64_t> words;
    auto argument = [&](uint64_t word) {
      words.push_back(word);
      return positional ? std::to_string(words.size()) + "$" : "";
    };
    std::string format;
    do {
      std::string fields;
      for (size_t flags = below(4); flags > 0; --flags) fields += "-+ #0'"[below(6)];
      for (const std::string start : {"", "."}) {
        const size_t form = below(4);
        if (form == 0) fields += start + std::to_string(1 + below(70));
        if (form == 1) fields += start + "*" + argument(below(30));
        if (form == 2) fields += start;
      }
      format += "%" + argument(values[below(std::size(values))]) + fields +
                letters[below(std::size(letters))] + " %%";
    } while (below(3) != 0);
    static char wanted[16384];  // not on the stack, which valgrind would follow
    va_list list;
    start_word_arguments(list, words.data());
    const std::string got = in_own_area(format, list);  // which leaves the list as it was
    const int length = vsnprintf(wanted, sizeof wanted, format.c_str(), list);
    ASSERT_EQ(got, std::string(wanted, static_cast<size_t>(length))) << format;
  }
}

}  // namespace

#include "liblocal/text/i18n_printf.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <variant>
#include <vector>

#include "liblocal/threads/c_memory.h"
#include "tests/failing_malloc.h"
#include "tests/word_arguments.h"

// The formats here are tables, made up, or wrong on purpose.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

namespace {

std::string in_own_area(const char* format, va_list arguments) {
  char* area = nullptr;
  const int length = i18n_vsprintf(nullptr, &area, format, arguments);
  c_unique_ptr<char> owner(area);
  EXPECT_EQ(area[length], '\0');
  return std::string(area, static_cast<size_t>(length));
}

// What the formatter makes of it: in an area of its own, in a buffer, and with a '$'
// that sends the arguments through the table, always the same.
std::string formatted(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = in_own_area(format, arguments);
  EXPECT_EQ(in_own_area(("$" + std::string(format)).c_str(), arguments), "$" + text) << format;
  std::string buffer(text.size() + 1, '#');
  EXPECT_EQ(i18n_vsprintf(buffer.data(), nullptr, format, arguments),
            static_cast<int>(text.size()));
  EXPECT_EQ(buffer, text + '\0');
  va_end(arguments);
  return text;
}

struct Case {
  std::string got, wanted;
};

void check(const std::vector<Case>& cases) {
  for (const Case& each : cases) EXPECT_EQ(each.got, each.wanted);
}

TEST(Format, Conversions) {
  check({{formatted(""), ""},
         {formatted("%%d 100%%"), "%d 100%"},
         {formatted("%*d|%-*d|%*d|%*d", 5, 42, 5, 42, -5, 42, -1, 42), "   42|42   |42   |42"},
         {formatted("%.*f|%.*f|%.f", 2, 1.0, -2, 1.0, 1.0), "1.00|1.000000|1"},
         {formatted("a%cb", 0), std::string("a\0b", 3)}});
}

TEST(Format, ColumnsOfTexts) {
  char unterminated[3] = {'a', 'b', 'c'};
  const char* absent = nullptr;
  check(
      {{formatted("%-6s|%6s|", "日本", "日本"), "日本  |  日本|"},
       {formatted("%.3s|%.4s|%.1s|%.0s|%.s", "日本", "日本", "日本", "日本", "日本"), "日|日本|||"},
       {formatted("%5.3s|%-5.3s|", "日本", "日本"), "   日|日   |"},
       {formatted("%.*s|%.*s|%.*s", 2, "abc", -1, "abc", -7, "abc"), "ab|abc|abc"},
       {formatted("%.3s", unterminated), "abc"},
       {formatted("%04s|%-04s|%0-4s|%*s|", "a", "a", "a", -4, "a"), "   a|   a|a   |a|"},
       {formatted("%6s|%.2s", absent, absent), "  null|nu"},
       // Characters that the end of the text cuts off.
       {formatted("%.9s|%.9s|%4s", "\xE6", "\xE6\x97", "\xF0\x9F"), "|\xE6\x97|  \xF0\x9F"}});
}

TEST(Format, Positions) {
  check({{formatted("%2$s %1$s", "a", "b"), "b a"},
         {formatted("%2$s %s %1$d", 1, "two", "three"), "two three 1"},
         {formatted("%1$*2$d|%1$-*2$d|%1$.*2$d", 7, 3), "  7|7  |007"},
         {formatted("%2$*1$s|%3$*s", 3, "日", 2, "x"), " 日| x"},
         {formatted("%3$s", 1, 2, "c"), "c"},    // 1 and 2 are skipped
         {formatted("%1$s %1$d", 5), "null 5"},  // one argument, one type
         {formatted("%1$d %1$s", "a"), "0 a"},
         {formatted("%2$f %2$d %1$f %1$Lf", 0.5L, 3), "0.000000 3 0.000000 0.500000"}});
}

TEST(Format, PositionsWithoutEnd) {
  const std::vector<uint64_t> sevens(600, 7);
  va_list list;
  start_word_arguments(list, sevens.data());
  std::string many, in_order, by_position;
  for (int i = 1; i <= 300; ++i) {
    many += "%d,";
    in_order += "7,";
    by_position += i <= 255 ? "7," : "0,";
  }
  const Case cases[] = {{many, in_order},
                        {"$" + many, "$" + by_position},
                        {"%254$d %d %d", "7 7 0"},
                        {"%256$s %0$*1$d|%4294967297$d", "null 0000000|0"},
                        {"%99999999999999999999$d", "0"},
                        {"%1$*256$.*999$d|%-0$d", "7|7"}};
  for (const auto& [format, wanted] : cases) EXPECT_EQ(in_own_area(format.c_str(), list), wanted);
}

TEST(Format, WhatIsNoConversion) {
  int count = 5;
  check({{formatted("a%"), "a"},
         {formatted("a%-"), "a"},
         {formatted("a%l", 1L), "a"},
         {formatted("%lld|%zu", 1L, 2L), "d|u"},
         {formatted("%0300lc|", 0x65E5L), "|"},  // a character that the locale lacks
         {formatted("%n%hn%ln|%d", 1, 2, &count, 3), "|3"},
         {formatted("%S%hs%hf%hp|%d", 1, 2, 3, 4, 5), "|5"},
         {formatted("%Ld%Ls|%d", 1.0L, 2.0L, 3), "|3"},
         {formatted("%y %5%d", 1, 2), "%y %d"},
         {formatted(("%" + std::string(1000, '-') + "3d|").c_str(), 1), "1  |"}});
  EXPECT_EQ(count, 5);
}

TEST(Format, AlwaysHasRoom) {
  const std::string text(40000, 'x');
  const std::string percents(60000, '%');
  check({{formatted("%s%s%s", text.c_str(), text.c_str(), text.c_str()), text + text + text},
         {formatted(percents.c_str()), percents.substr(30000)},
         {formatted((text + "%s" + text + "%d").c_str(), "y", 5), text + "y" + text + "5"},
         {formatted("%40000s|%-40000s", "", ""),
          std::string(40000, ' ') + "|" + std::string(40000, ' ')},
         {formatted("%.500d", 0), std::string(500, '0')},
         {formatted("%.20000Lf", 0.0L), "0." + std::string(20000, '0')}});
  std::string columns;  // more bytes than columns
  std::string format, full;
  for (int i = 0; i < 10000; ++i) columns += "日";
  for (int i = 0; i < 100; ++i) {
    format += "%1$f";
    full += std::to_string(1e308);
  }
  EXPECT_EQ(formatted("%.20000s", columns.c_str()), columns);
  EXPECT_EQ(formatted(format.c_str(), 1e308), full) << "each beyond the estimate";
}

int format_into(char** result, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = i18n_vsprintf(nullptr, result, format, arguments);
  va_end(arguments);
  return length;
}

TEST(Format, RefusedMemory) {
  char none = 'x';
  char* area = &none;
  {
    FailingMalloc failing(0);
    EXPECT_EQ(format_into(&area, "abc"), 0);
    EXPECT_EQ(area, nullptr);
    EXPECT_EQ(format_into(nullptr, "abc"), 0);
  }
  const std::string text(20000, 'x');
  for (const char* format : {"ab%d%2$s", "ab%d%30000d", "ab%d%.30000f", "ab%d%99999999999d"}) {
    FailingMalloc failing(1);
    EXPECT_EQ(format_into(&area, format, 5, text.c_str(), 1.0), 3) << format;
    EXPECT_STREQ(area, "ab5") << format;
    free(area);
  }
  EXPECT_EQ(format_into(nullptr, "%s", text.c_str()), 20000) << "counted only";
}

// --- Made-up formats against the platform ---------------------------------------

using Argument = std::variant<int, long, double, long double, const char*>;
using Values = std::vector<Argument>;

const Values kInts = {0, -1, 42, 65, INT_MAX, INT_MIN};
const Values kLongs = {0L, -1L, 42L, LONG_MAX, LONG_MIN};
const Values kDoubles = {0.0, -1.5, 1e30, 1e-30, static_cast<double>(NAN), 1.0 / 7};
const Values kLongDoubles = {0.0L, -1.5L, 1e40L, 1e-40L, 2.5L, 1.0L / 7};
const Values kTexts = {"", "text", "日本", "\xFF%d"};
const Values kStars = {0, 1, 7, 40};

std::minstd_rand randomness;
size_t below(size_t limit) { return randomness() % limit; }
const auto& one_of(const auto& values) { return values[below(std::size(values))]; }

using Kinds = std::vector<const Values*>;

// A conversion; the kinds of its arguments are added to `kinds`.
std::string make_conversion(bool positional, Kinds* kinds) {
  static const std::pair<const Values*, std::vector<const char*>> all[] = {
      {&kInts, {"d", "i", "u", "x", "X", "o", "c", "hd", "hx"}},
      {&kLongs, {"ld", "lu", "lX", "p"}},
      {&kDoubles, {"e", "f", "F", "G", "a", "lf"}},
      {&kLongDoubles, {"Lf", "Le", "LG"}},
      {&kTexts, {"s"}}};
  const auto& [values, letters] = one_of(all);
  auto argument = [&](const Values* its_values) {
    kinds->push_back(its_values);
    return positional ? std::to_string(kinds->size()) + "$" : "";
  };
  std::string fields;
  if (values != &kTexts) {
    for (size_t flags = below(4); flags > 0; --flags) fields += "-+ #0'"[below(6)];
    for (const char* start : {"", "."}) {
      const size_t form = below(4);
      if (form == 0) fields += start + std::to_string(1 + below(40));
      if (form == 1) fields += start + ("*" + argument(&kStars));
      if (form == 2) fields += start;
    }
  }
  return "%" + argument(values) + fields + one_of(letters);
}

// A format of one to four arguments.
std::string make_format(Kinds* kinds) {
  static const char* const between[] = {"", "%%", " é"};
  const bool positional = below(2) == 0;
  std::vector<std::string> pieces;
  do {
    pieces.push_back(make_conversion(positional, kinds));
  } while (kinds->size() < 2 && below(4) != 0);
  if (positional) std::shuffle(pieces.begin(), pieces.end(), randomness);
  std::string format;
  for (const std::string& piece : pieces) format += piece + one_of(between);
  return format;
}

// Both formatters on the arguments, once each has its own type again.
template <typename... Taken>
void compare(const char* format, const Values& all, Taken... taken) {
  if (sizeof...(taken) == all.size()) {
    static char wanted[16384];  // not on the stack, which valgrind would follow
    static char got[16384];
    const int length = snprintf(wanted, sizeof wanted, format, taken...);
    ASSERT_EQ(i18n_sprintf(got, format, taken...), length) << format;
    const auto size = static_cast<size_t>(length) + 1;
    ASSERT_EQ(memcmp(got, wanted, size), 0) << format << "\n" << got << "\n" << wanted;
  } else if constexpr (sizeof...(taken) < 4) {
    std::visit([&](auto next) { compare(format, all, taken..., next); }, all[sizeof...(taken)]);
  }
}

TEST(MadeUpFormats, AsThePlatformHasThem) {
  for (int i = 0; i < 5000 && !HasFatalFailure(); ++i) {
    Kinds kinds;
    const std::string format = make_format(&kinds);
    for (int set = 0; set < 20; ++set) {
      Values arguments;
      for (const Values* values : kinds) arguments.push_back(one_of(*values));
      compare(format.c_str(), arguments);
    }
  }
}

}  // namespace

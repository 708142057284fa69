#include "liblocal/text/i18n_printf.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <string>

#include "liblocal/base/c_memory.h"
#include "liblocal/text/utf8.h"
#include "liblocal/text/vxprint.h"
#include "tests/fakes.h"

// The formats are made up, or wrong on purpose.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

namespace {

std::string in_own_area(const std::string& format, va_list arguments) {
  char* area = nullptr;
  const int length = i18n_vsprintf(nullptr, &area, format.c_str(), arguments);
  const c_unique_ptr<char> owner(area);
  EXPECT_EQ(area[length], '\0');
  return {area, static_cast<size_t>(length)};
}

// The same with a '$', which makes a table of arguments.
std::string formatted(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = in_own_area(format, arguments);
  EXPECT_EQ(in_own_area(std::string("$") + format, arguments), "$" + text);
  va_end(arguments);
  return text;
}

TEST(Format, WidthsAndPrecisionsOfNumbers) {
  EXPECT_EQ(formatted("%%d %%%d 100%%", 5), "%d %5 100%");
  EXPECT_EQ(formatted("%*d|%*d", 5, 42, -2, 4), "   42|4 ");
  EXPECT_EQ(formatted("%.*f|%.*f", 2, 1.0, -2, 1.0), "1.00|1.000000");
  EXPECT_EQ(formatted("%----------------------------------------3d|", 1), "1  |");
  EXPECT_EQ(formatted("%18449.0f|%40000s", 1.0, "").size(), 58450U);     // more than one area
  EXPECT_EQ(formatted("a%*db|%*s", INT_MIN, 42, INT_MIN, "x"), "ab|x");  // it has no opposite
}

TEST(Format, TextsAreMeasuredInColumns) {
  const char* absent = nullptr;
  EXPECT_EQ(formatted("%-6s|%6.9s|%5.3s|", "日本", "日本", "日本"), "日本  |  日本|   日|");
  EXPECT_EQ(formatted("%.4s|%.1s|%.s|%.*s", "日本", "日本", "日本", -1, "abc"), "日本|||abc");
  EXPECT_EQ(formatted("%04s|%0-4s|%.2s|%1s%1.9s", "a", "a", absent, "a", ""), "   a|a   |nu|a ");
}

TEST(Format, ATextIsReadToItsPrecision) {
  const char unterminated[] = {'a', 'b', 'c'};
  EXPECT_EQ(formatted("%.3s", unterminated), "abc");
  // Characters that the end of the text cuts off.
  EXPECT_EQ(formatted("%.9s|%.9s|%4s", "\xE6", "\xE6\x97", "\xF0\x9F"), "|\xE6\x97|  \xF0\x9F");
}

TEST(Format, PositionsOfArguments) {
  EXPECT_EQ(formatted("%2$s %s %1$d", 1, "two", "three"), "two three 1");
  EXPECT_EQ(formatted("%2$*1$s|%3$*s", 3, "日", 2, "x"), " 日| x");
  EXPECT_EQ(formatted("%3$s", 1, 2, "c"), "c");  // the skipped ones are integers
  // One that is used twice has the type of its last use.
  EXPECT_EQ(formatted("%1$s %1$d %1$ld", int64_t{5}), "null 5 5");
  EXPECT_EQ(formatted("%2$f %2$d %1$Lf %1$f", 0.5, 3), "0.000000 3 0.000000 0.500000");
  EXPECT_EQ(formatted("%256$s|%s|%99999999999999999999$d|%0$d", 7), "null|null|0|0");
}

TEST(Format, UnfinishedAndUnknownConversions) {
  EXPECT_EQ(formatted("a%-"), "a");
  EXPECT_EQ(formatted("%lzd|%Zu", int64_t{1}, 2), "d|u");
  EXPECT_EQ(formatted("%y %5%d", 1, 2), "%y %d");
}

TEST(Format, WhatIsNoPointerIsNotFollowed) {
  int count = 5;
  EXPECT_EQ(formatted("%n%ln|%d", 1, &count, 3), "|3");
  EXPECT_EQ(count, 5);
  EXPECT_EQ(formatted("%S%hf|%d", 1, 2, 3), "|3");
  EXPECT_EQ(formatted("%Ld%Ls|%d", 1.0L, 2.0L, 3), "|3");
}

TEST(Vxfprintf, LeavesOutNulsAndWhatLacksRoom) {
  FILE* stream = tmpfile();
  EXPECT_EQ(vxfprintf(stream, "%cb", '\0'), 1);
  for (const char* format : {"ab%d%20000sc", "ab%d%20000pc"}) {
    const fakes::FailingMalloc failing(1);
    EXPECT_EQ(vxfprintf(stream, format, 5, ""), 3);
    EXPECT_EQ(vxfprintf(stream, "x"), 0);
    EXPECT_EQ(i18n_sprintf(nullptr, "x"), 0);
  }
  vxfclose(stream);
}

void expect_as_platform(auto value, std::initializer_list<const char*> formats) {
  for (const char* format : formats) {
    char wanted[128];
    sprintf(wanted, format, value);
    EXPECT_EQ(formatted(format, value), wanted) << format;
  }
}

TEST(Format, NumbersAreThoseOfThePlatform) {
  for (const int value : {0, 42, -1, INT_MIN}) {
    expect_as_platform(
        value, {"%d", "%u", "%x", "%X", "%i", "%hd", "%10d", "%05d", "%-5d", "%+d", "%.3d"});
    expect_as_platform(int64_t{value} << 8, {"%ld", "%lu", "%lx", "%-24lX|"});
  }
  expect_as_platform(-1.5, {"%e", "%G", "%9.0f", "%lf", "%A"});
  expect_as_platform(-1.5L, {"%Lf"});
}

}  // namespace

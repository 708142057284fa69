#include "liblocal/text/i18n_printf.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>

#include "liblocal/base/c_memory.h"
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

// The same in an area of its own, in a buffer, and with a '$', which makes a table of arguments.
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

TEST(Format, WidthsAndPrecisionsOfNumbers) {
  EXPECT_EQ(formatted("%%d 100%%"), "%d 100%");
  EXPECT_EQ(formatted("%*d|%-*d|%*d", 5, 42, 5, 42, -5, 42), "   42|42   |42   ");
  EXPECT_EQ(formatted("%.*f|%.*f|%Lg", 2, 1.0, -2, 1.0, 1e40L), "1.00|1.000000|1e+40");
  EXPECT_EQ(formatted("%----------------------------------------3d|", 1), "1  |");
  EXPECT_EQ(formatted("a%cb", 0), std::string("a\0b", 3));
  EXPECT_EQ(formatted("%9000.0f|%15000d", 1.0, 2).size(), 24001U) << "more than one area";
}

TEST(Format, AWidthThatCannotBeNegatedPrintsNothingAndDropsNothing) {
  EXPECT_EQ(formatted("a%*db", INT_MIN, 42), "ab");
  EXPECT_EQ(formatted("a%*sb", INT_MIN, "x"), "axb");
}

TEST(Format, TextsAreMeasuredInColumns) {
  const char* absent = nullptr;
  EXPECT_EQ(formatted("%-6s|%6s|%5.3s|", "日本", "日本", "日本"), "日本  |  日本|   日|");
  EXPECT_EQ(formatted("%.3s|%.4s|%.1s|%.s", "日本", "日本", "日本", "日本"), "日|日本||");
  EXPECT_EQ(formatted("%.*s|%.*s|%.*s", 2, "abc", -1, "abc", -7, "abc"), "ab|abc|abc");
  EXPECT_EQ(formatted("%04s|%-04s|%0-4s|%*s|", "a", "a", "a", -4, "a"), "   a|   a|a   |a|");
  EXPECT_EQ(formatted("%6s|%.2s|%1s|%1s", absent, absent, "abc", ""), "  null|nu|abc| ");
}

TEST(Format, ATextIsReadNoFurtherThanItsPrecision) {
  const char unterminated[] = {'a', 'b', 'c'};
  EXPECT_EQ(formatted("%.3s", unterminated), "abc");
  // Characters that the end of the text cuts off.
  EXPECT_EQ(formatted("%.9s|%.9s|%4s", "\xE6", "\xE6\x97", "\xF0\x9F"), "|\xE6\x97|  \xF0\x9F");
}

TEST(Format, PositionsOfArguments) {
  EXPECT_EQ(formatted("%2$s %s %1$d", 1, "two", "three"), "two three 1");
  EXPECT_EQ(formatted("%2$*1$s|%3$*s", 3, "日", 2, "x"), " 日| x");
  EXPECT_EQ(formatted("%3$s", 1, 2, "c"), "c") << "the skipped ones are integers";
}

TEST(Format, AnArgumentHasTheTypeOfItsLastUse) {
  EXPECT_EQ(formatted("%1$s %1$d", 5), "null 5");
  EXPECT_EQ(formatted("%1$d %1$s", "a"), "0 a");
  EXPECT_EQ(formatted("%2$f %2$d %1$f %1$Lf", 0.5L, 3), "0.000000 3 0.000000 0.500000");
}

template <size_t... index>
std::string formatted_sevens(const std::string& format, std::index_sequence<index...> /*count*/) {
  return formatted(format.c_str(), (static_cast<void>(index), 7)...);
}

TEST(Format, PositionsEndAt255) {
  std::string format = "%256$s|", wanted = "null|";
  for (int position = 1; position <= 300; ++position) {
    format += "%" + std::to_string(position) + "$d";
    wanted += position <= 255 ? "7" : "0";
  }
  const std::make_index_sequence<300> arguments;
  EXPECT_EQ(formatted_sevens(format, arguments), wanted);
  EXPECT_EQ(formatted_sevens("%0$*1$d|%99999999999999999999$d", arguments), "0000007|0");
}

TEST(Format, UnfinishedAndUnknownConversions) {
  EXPECT_EQ(formatted("a%-"), "a");
  EXPECT_EQ(formatted("a%l", int64_t{1}), "a");
  EXPECT_EQ(formatted("%lld|%hhd|%zu", int64_t{1}, 2, 3), "d|d|u");
  EXPECT_EQ(formatted("%y %5%d", 1, 2), "%y %d");
}

TEST(Format, NothingIsReadOrWrittenThroughWhatIsNoPointer) {
  int count = 5;
  EXPECT_EQ(formatted("%n%hn%ln|%d", 1, 2, &count, 3), "|3");
  EXPECT_EQ(count, 5);
  EXPECT_EQ(formatted("%S%hs%hf%hp|%d", 1, 2, 3, 4, 5), "|5");
  EXPECT_EQ(formatted("%Ld%Ls|%d", 1.0L, 2.0L, 3), "|3");
}

// The length when only the first area can be allocated.
int length_in_first_area(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const fakes::FailingMalloc failing(1);
  const int length = i18n_vsprintf(nullptr, nullptr, format, arguments);
  va_end(arguments);
  return length;
}

TEST(Format, WithoutMemoryToGrowTheTextEndsBeforeWhatLacksRoom) {
  const std::string text(20000, 'x');
  EXPECT_EQ(length_in_first_area("ab%d%2$s", 5, text.c_str()), 3);
  EXPECT_EQ(length_in_first_area("ab%d%30000d", 5, 1), 3);
}

TEST(Vxprintf, WithoutMemoryNothingIsPrinted) {
  const fakes::FailingMalloc failing(0);
  EXPECT_EQ(vxprintf("abc"), 0);
}

// Numbers in every combination of flags, width and precision are what the platform prints.
template <typename T>
void expect_as_platform(std::initializer_list<const char*> letters,
                        std::initializer_list<T> values) {
  for (const std::string flags : {"%", "%-", "%0", "%+", "% ", "%#", "%'", "%-0", "%# 0"}) {
    for (const std::string width : {"", "1", "7", "64", "70"}) {
      for (const std::string precision : {"", ".", ".0", ".3", ".30"}) {
        for (const std::string letter : letters) {
          for (const T value : values) {
            const std::string format = flags + width + precision + letter + "|";
            char got[512], wanted[512];
            const int length = sprintf(wanted, format.c_str(), value);
            ASSERT_EQ(i18n_sprintf(got, format.c_str(), value), length) << format;
            ASSERT_EQ(memcmp(got, wanted, static_cast<size_t>(length)), 0) << format;
          }
        }
      }
    }
  }
}

TEST(Format, NumbersAreThoseOfThePlatform) {
  expect_as_platform<int>({"d", "i", "u", "x", "X", "o", "c", "hd", "hx"},
                          {0, 1, 42, -1, 65, INT_MAX, INT_MIN});
  expect_as_platform<int64_t>({"ld", "lu", "lx", "lX"}, {0, -1, 42, INT64_MAX, INT64_MIN});
  expect_as_platform<double>({"e", "G", "f", "lf", "a"}, {0, -1.5, 1e9, 1.0 / 3});
  expect_as_platform<const void*>({"p"}, {nullptr, "text"});
}

}  // namespace

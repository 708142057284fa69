// Reading the format of i18n_vsprintf: its conversions and the arguments they use.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

constexpr int kI18nPositions = 256;  // of arguments, in a format with positions; 0 is none
constexpr int kI18nUnset = -1;       // no width, no precision

/// How an argument is passed to a variadic function.
enum class I18nKind : uint8_t { kInt, kLong, kDouble, kLongDouble, kString };

/// An argument, in the member of its kind.
union I18nValue {
  long integer;  // an int, a long or a pointer
  double real;
  long double extended;
  const char* text;  // never null
};

/// The arguments of one format. Without a '$' each is used once and in order, so they
/// come straight from the list. Otherwise the format is read once to find each
/// argument's kind, and all are taken from the list into a table.
class I18nArguments {
 public:
  /// `has_positions`: there is a '$' in the format.
  /// REQUIRES: `list` outlives the object; it is left as it was.
  I18nArguments(const char* format, bool has_positions, va_list list);
  ~I18nArguments();
  I18nArguments(const I18nArguments&) = delete;
  I18nArguments& operator=(const I18nArguments&) = delete;

  /// Makes `position` (from 1) the next one. Only for a format with a '$'.
  void go_to(int position) { position_ = position; }

  /// Takes the argument at the next position, which moves on by one. What cannot be,
  /// beyond the last position or of another kind than its last use says, is 0 or "null".
  void next(I18nKind kind, I18nValue* value);
  int next_int();

  /// The int at `position`. Only for a format with a '$'.
  int int_at(int position);

 private:
  enum class Source : uint8_t { kList, kNone, kTable };

  void find_kinds(const char* format);
  void fill_table();
  void take(I18nKind kind, I18nValue* value);
  void look_up(int position, I18nKind kind, I18nValue* value);

  va_list list_;
  Source source_ = Source::kList;
  int position_ = 1;
  int highest_ = 0;  // that the format uses
  I18nKind kinds_[kI18nPositions];
  I18nValue values_[kI18nPositions];
};

/// One conversion of a format.
struct I18nConversion {
  char flags[32];  // `flag_count` of them; more are dropped
  size_t flag_count;
  int width;        // kI18nUnset, or any int
  int precision;    // kI18nUnset, or 0 and up
  char letters[3];  // "d"; "ld" with a length letter; empty where the format ends
  I18nKind kind;
  I18nValue argument;
};

/// Reads the conversion of which `at` is the first byte behind its '%', with the
/// arguments that it uses. Returns the first byte behind it.
const char* i18n_read_conversion(const char* at, I18nArguments* arguments,
                                 I18nConversion* conversion);

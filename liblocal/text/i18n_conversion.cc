#include "liblocal/text/i18n_conversion.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "liblocal/text/ascii.h"

namespace {

constexpr const char* kAbsentText = "null";

bool is_floating(char letter) {
  letter = ascii_lower(letter);
  return letter == 'a' || (letter >= 'e' && letter <= 'g');
}

bool is_integer(I18nKind kind) { return kind == I18nKind::kInt || kind == I18nKind::kLong; }

int with_digit(int number, char digit) {
  return static_cast<int>(std::min(int64_t{number} * 10 + (digit - '0'), int64_t{INT_MAX}));
}

// The first letter decides, but that "%lf" is the double it is everywhere else.
I18nKind kind_of(const char* letters) {
  switch (letters[0]) {
    case 'L':
      return I18nKind::kLongDouble;
    case 'l':
      return is_floating(letters[1]) ? I18nKind::kDouble : I18nKind::kLong;
    case 'p':
      return I18nKind::kLong;
    case 's':
      return I18nKind::kString;
    default:
      return is_floating(letters[0]) ? I18nKind::kDouble : I18nKind::kInt;
  }
}

void make_absent(I18nKind kind, I18nValue* value) {
  if (is_integer(kind)) value->integer = 0;
  if (kind == I18nKind::kDouble) value->real = 0;
  if (kind == I18nKind::kLongDouble) value->extended = 0;
  if (kind == I18nKind::kString) value->text = kAbsentText;
}

void add_flag(I18nConversion* conversion, char flag) {
  if (conversion->flag_count == sizeof conversion->flags) return;
  conversion->flags[conversion->flag_count++] = flag;
}

// Takes the letter at `at`, and behind a length letter the character that follows.
const char* read_letters(const char* at, char* letters) {
  memset(letters, 0, sizeof I18nConversion::letters);
  if (*at == '\0') return at;
  const char letter = letters[0] = *at++;
  if ((letter != 'L' && letter != 'h' && letter != 'l') || *at == '\0') return at;
  letters[1] = *at++;
  return at;
}

}  // namespace

I18nArguments::I18nArguments(const char* format, bool has_positions, va_list list) {
  va_copy(list_, list);
  if (!has_positions) return;
  find_kinds(format);
  fill_table();
}

I18nArguments::~I18nArguments() { va_end(list_); }

void I18nArguments::find_kinds(const char* format) {
  source_ = Source::kNone;
  for (I18nKind& kind : kinds_) kind = I18nKind::kInt;
  for (const char* at = strchr(format, '%'); at != nullptr; at = strchr(at, '%')) {
    I18nConversion ignored;
    at = at[1] == '%' ? at + 2 : i18n_read_conversion(at + 1, this, &ignored);
  }
}

void I18nArguments::fill_table() {
  for (int i = 1; i <= highest_; ++i) take(kinds_[i], &values_[i]);
  source_ = Source::kTable;
  position_ = 1;
}

void I18nArguments::next(I18nKind kind, I18nValue* value) {
  if (source_ == Source::kList) {
    take(kind, value);
  } else {
    look_up(position_, kind, value);
    if (position_ < kI18nPositions) ++position_;
  }
}

int I18nArguments::next_int() {
  I18nValue value;
  next(I18nKind::kInt, &value);
  return static_cast<int>(value.integer);
}

int I18nArguments::int_at(int position) {
  I18nValue value;
  look_up(position, I18nKind::kInt, &value);
  return static_cast<int>(value.integer);
}

void I18nArguments::look_up(int position, I18nKind kind, I18nValue* value) {
  make_absent(kind, value);
  if (position < 1 || position >= kI18nPositions) return;
  if (source_ == Source::kNone) {
    kinds_[position] = kind;
    highest_ = std::max(highest_, position);
    return;
  }
  const I18nKind fetched = kinds_[position];
  if (fetched == kind || (is_integer(fetched) && is_integer(kind))) *value = values_[position];
}

void I18nArguments::take(I18nKind kind, I18nValue* value) {
  switch (kind) {
    case I18nKind::kInt:
      value->integer = va_arg(list_, int);
      break;
    case I18nKind::kLong:
      value->integer = va_arg(list_, long);
      break;
    case I18nKind::kDouble:
      value->real = va_arg(list_, double);
      break;
    case I18nKind::kLongDouble:
      value->extended = va_arg(list_, long double);
      break;
    case I18nKind::kString:
      value->text = va_arg(list_, const char*);
      if (value->text == nullptr) value->text = kAbsentText;
      break;
  }
}

const char* i18n_read_conversion(const char* at, I18nArguments* arguments,
                                 I18nConversion* conversion) {
  conversion->flag_count = 0;
  conversion->width = conversion->precision = kI18nUnset;
  int* field = &conversion->width;  // what a number or a '*' means at this place
  bool point_seen = false;
  bool star_seen = false;
  int number = 0;
  for (; *at != '\0' && !is_letter(*at); ++at) {
    if (is_digit(*at) && (*at != '0' || number != 0 || point_seen)) {
      number = with_digit(number, *at);
      continue;
    }
    switch (*at) {
      case '*':
        star_seen = true;
        if (is_digit(at[1])) break;  // the number of its argument follows, and a '$'
        *field = arguments->next_int();
        field = &conversion->width;
        break;
      case '$':
        if (!star_seen && conversion->flag_count == 0) {
          arguments->go_to(number);
          break;
        }
        *field = arguments->int_at(number);
        field = &conversion->width;
        break;
      case '.':
        if (number != 0) conversion->width = number;
        point_seen = true;
        field = &conversion->precision;
        break;
      default:
        add_flag(conversion, *at);
    }
    number = 0;
  }
  if (field == &conversion->precision || number != 0) *field = number;
  if (conversion->precision < 0) conversion->precision = kI18nUnset;
  at = read_letters(at, conversion->letters);
  conversion->kind = kind_of(conversion->letters);
  arguments->next(conversion->kind, &conversion->argument);
  return at;
}

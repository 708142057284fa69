#include "liblocal/text/i18n_printf.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>

#include "liblocal/base/text_sizes.h"
#include "liblocal/text/i18n_conversion.h"
#include "liblocal/text/text_view.h"
#include "liblocal/text/utf8_columns.h"

namespace {

constexpr size_t kSlack = kMessageSize;  // room beyond the format's length, and beyond each growth
constexpr int kWidest = 64;              // width of a number that is not left to the platform

// The text: in the caller's buffer, or in an area of its own that grows.
class Output {
 public:
  Output(char* buffer, char** result, size_t format_length)
      : start_(buffer), result_(result), grows_(buffer == nullptr) {
    if (grows_) resize(format_length + kSlack);
  }
  ~Output() {
    if (grows_ && result_ == nullptr) free(start_);
  }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  bool exists() const { return start_ != nullptr; }

  // Makes room for `count` bytes and a terminator; false when it cannot be had.
  bool reserve(size_t count) {
    if (!grows_ || capacity_ - used_ > count) return true;
    return resize(capacity_ + count + kSlack);
  }

  // Appends `length` bytes, for which there is room.
  void append(const char* text, size_t length) {
    memcpy(start_ + used_, text, length);
    used_ += length;
  }
  void fill(char byte, size_t count) {
    memset(start_ + used_, byte, count);
    used_ += count;
  }

  // Appends what the platform prints; false when there is no room.
  template <typename T>
  bool print(const char* format, T value);

  int finish() {
    start_[used_] = '\0';
    return static_cast<int>(used_);
  }

 private:
  bool resize(size_t capacity) {
    // The result counts bytes in an int.
    auto* area = capacity <= INT_MAX ? static_cast<char*>(realloc(start_, capacity)) : nullptr;
    if (result_ != nullptr && (area != nullptr || start_ == nullptr)) *result_ = area;
    if (area == nullptr) return false;
    start_ = area;
    capacity_ = capacity;
    return true;
  }

  char* start_;
  char** result_;
  bool grows_;
  size_t used_ = 0;
  size_t capacity_ = 0;  // of an area that grows
};

// The formats are made of conversions that were read and found to fit their argument.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
template <typename T>
bool Output::print(const char* format, T value) {
  const int length = snprintf(nullptr, 0, format, value);
  if (length < 0) return true;  // no text for such a conversion
  const auto count = static_cast<size_t>(length);
  if (!reserve(count)) return false;
  if (snprintf(start_ + used_, count + 1, format, value) == length) used_ += count;
  return true;
}
#pragma GCC diagnostic pop

// The part of a text that a "%s" prints.
struct Measured {
  size_t bytes;
  size_t columns;
};

// As many characters as `precision` columns hold, and no more columns than the text has
// bytes. Reads no further, so a text of `precision` ASCII bytes needs no terminator.
Measured measure(const char* text, size_t precision) {
  const size_t limit = strnlen(text, precision);
  Measured part{};
  while (part.columns < limit && text[part.bytes] != '\0') {
    size_t last = part.bytes;
    const auto columns = static_cast<size_t>(utf8_char_columns(text, &last));
    if (part.columns + columns > limit) break;
    part.columns += columns;
    part.bytes += strnlen(text + part.bytes, last - part.bytes + 1);
  }
  return part;
}

// Appends `text`, of `columns`, with blanks up to `width`; false when there is no room.
bool append_padded(Output* output, std::string_view text, size_t columns, size_t width,
                   bool fill_behind) {
  const size_t fill = std::max(width, columns) - columns;
  if (!output->reserve(text.size() + fill)) return false;
  if (!fill_behind) output->fill(' ', fill);
  output->append(text.data(), text.size());
  if (fill_behind) output->fill(' ', fill);
  return true;
}

bool print_text(Output* output, const I18nConversion& conversion) {
  const char* text = conversion.argument.text;
  const auto width = static_cast<size_t>(std::max(conversion.width, 0));
  Measured part{};
  if (conversion.precision != kI18nUnset) {
    part = measure(text, static_cast<size_t>(conversion.precision));
  } else {
    part.bytes = strlen(text);
    if (width > 0) part.columns = utf8_ttystrlen(text);
  }
  const size_t flags = conversion.flag_count;
  const bool fill_behind = flags > 0 && conversion.flags[flags - 1] == '-';
  return append_padded(output, {text, part.bytes}, part.columns, width, fill_behind);
}

// The letter behind a length letter.
char last_letter(const I18nConversion& conversion) {
  return conversion.letters[conversion.letters[1] != '\0' ? 1 : 0];
}

// Whether the conversion is complete and the platform takes its argument for what it is. Where
// the platform would take it for a pointer, or from another place of the list, nothing is printed.
bool suits_platform(const I18nConversion& conversion) {
  const char last = last_letter(conversion);
  const auto is_one_of = [last](std::string_view set) { return set.find(last) != set.npos; };
  if (last == '\0' || is_one_of("hlLqjzZtI")) return false;
  switch (conversion.kind) {
    case I18nKind::kInt:
      return !is_one_of("nspSaAeEfFgG");
    case I18nKind::kLong:
      return last != 'n';
    case I18nKind::kLongDouble:
      return is_one_of("aAeEfFgG");
    default:
      return true;
  }
}

// The numbers of most messages need no platform, which takes half of a message's time: whole,
// without flags and precision.
bool is_plain_integer(const I18nConversion& conversion) {
  const char letter = last_letter(conversion);
  if (letter != 'd' && letter != 'u' && letter != 'x') return false;
  return conversion.letters[conversion.kind == I18nKind::kLong ? 1 : 0] == letter &&
         conversion.flag_count == 0 && conversion.precision == kI18nUnset &&
         conversion.width >= kI18nUnset && conversion.width <= kWidest;
}

bool print_plain_integer(Output* output, const I18nConversion& conversion) {
  char digits[24];
  char* end = digits + sizeof digits;
  const long value = conversion.argument.integer;
  const bool is_long = conversion.kind == I18nKind::kLong;
  if (last_letter(conversion) == 'd') {
    end = std::to_chars(digits, end, is_long ? value : static_cast<int>(value)).ptr;
  } else {
    const auto bits =
        is_long ? static_cast<unsigned long>(value) : static_cast<unsigned int>(value);
    end = std::to_chars(digits, end, bits, last_letter(conversion) == 'x' ? 16 : 10).ptr;
  }
  const std::string_view text(digits, static_cast<size_t>(end - digits));
  const auto width = static_cast<size_t>(std::max(conversion.width, 0));
  return append_padded(output, text, text.size(), width, false);
}

// Two signs, the flags, two numbers of up to 11 and 10 digits, and the letters.
constexpr size_t kSubFormatSize = 64;
static_assert(kSubFormatSize >= 23 + sizeof I18nConversion::flags + sizeof I18nConversion::letters);

// Writes the conversion as the platform is to read it.
void write_sub_format(const I18nConversion& conversion, char (&format)[kSubFormatSize]) {
  char* at = format;
  *at++ = '%';
  at += text_copy({conversion.flags, conversion.flag_count}, at, sizeof conversion.flags);
  if (conversion.width != kI18nUnset) {
    at = std::to_chars(at, std::end(format), conversion.width).ptr;
  }
  if (conversion.precision != kI18nUnset) {
    *at++ = '.';
    at = std::to_chars(at, std::end(format), conversion.precision).ptr;
  }
  memcpy(at, conversion.letters, sizeof conversion.letters);
}

bool print_by_platform(Output* output, const I18nConversion& conversion) {
  if (!suits_platform(conversion)) return true;
  char format[kSubFormatSize];
  write_sub_format(conversion, format);
  switch (conversion.kind) {
    case I18nKind::kLong:
      return output->print(format, conversion.argument.integer);
    case I18nKind::kDouble:
      return output->print(format, conversion.argument.real);
    case I18nKind::kLongDouble:
      return output->print(format, conversion.argument.extended);
    default:
      return output->print(format, static_cast<int>(conversion.argument.integer));
  }
}

// False when there is no room.
bool print_conversion(Output* output, const I18nConversion& conversion) {
  if (conversion.kind == I18nKind::kString) return print_text(output, conversion);
  if (is_plain_integer(conversion)) return print_plain_integer(output, conversion);
  return print_by_platform(output, conversion);
}

}  // namespace

int i18n_vsprintf(char* buffer, char** result, const char* format, va_list arguments) {
  Output output(buffer, result, strlen(format));
  if (!output.exists()) return 0;
  I18nArguments values(format, strchr(format, '$') != nullptr, arguments);
  for (const char* at = format; *at != '\0';) {
    const bool is_percent_sign = at[0] == '%' && at[1] == '%';
    if (*at == '%' && !is_percent_sign) {
      I18nConversion conversion;
      at = i18n_read_conversion(at + 1, &values, &conversion);
      if (!print_conversion(&output, conversion)) break;
      continue;
    }
    if (is_percent_sign) ++at;
    // Text up to the next '%'.
    const char* end = strchrnul(at + 1, '%');
    const auto length = static_cast<size_t>(end - at);
    if (!output.reserve(length)) break;
    output.append(at, length);
    at = end;
  }
  return output.finish();
}

int i18n_sprintf(char* buffer, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = i18n_vsprintf(buffer, nullptr, format, arguments);
  va_end(arguments);
  return length;
}

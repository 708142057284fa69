#include "liblocal/startup/debug_command.h"

#include <algorithm>
#include <climits>
#include <cstdint>

#include "liblocal/text/ascii.h"
#include "liblocal/text/text_view.h"

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n'; }

// Takes the longest run of characters that `belongs` accepts off the front of `text`.
std::string_view take_run(std::string_view* text, bool (*belongs)(char)) {
  size_t length = 0;
  while (length < text->size() && belongs((*text)[length])) ++length;
  std::string_view run = text_part(*text, 0, length);
  text->remove_prefix(length);
  return run;
}

int number(std::string_view digits, bool negative) {
  int64_t magnitude = 0;
  for (char digit : digits) {
    magnitude = std::min(magnitude * 10 + (digit - '0'), int64_t{INT_MAX});
  }
  return static_cast<int>(negative ? -magnitude : magnitude);
}

}  // namespace

std::optional<debug_command> parse_debug_command(std::string_view text) {
  take_run(&text, is_blank);
  debug_command command{take_run(&text, is_letter), {}, 0};
  take_run(&text, is_blank);
  if (text.empty()) return command;
  if (text.front() != '=') return std::nullopt;
  text.remove_prefix(1);
  take_run(&text, is_blank);
  if (text.empty()) return std::nullopt;

  const char* start = text.data();
  bool negative = text.front() == '-';
  if (negative) text.remove_prefix(1);
  command.value = number(take_run(&text, is_digit), negative);
  command.value_text = {start, text.data()};
  return command;
}

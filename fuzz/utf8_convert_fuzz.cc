// Both converters, in the codeset that the first byte chooses and into an area of the size that
// the second one gives, beside a literal model that converts a character at a time; and line by
// line from a stream, where the pieces are the whole.
#include <iconv.h>

#include <algorithm>
#include <vector>

#include "fuzz/harness.h"
#include "liblocal/text/codesets.h"
#include "liblocal/text/mbt.h"
#include "liblocal/text/utf8.h"
#include "liblocal/text/utf8_codec.h"
#include "liblocal/text/utf8_convert.h"

// The plain locale's first, a UTF-8 one's last. Some converters may hold a character back and
// combine it with the next.
static struct Codeset {
  const char* name;
  bool combines = false;
  iconv_t from_utf8 = iconv_open(name, "UTF-8"), to_utf8 = iconv_open("UTF-8", name);
} codesets[] = {{"ISO8859-1"},    {"ISO-8859-15"},      {"EUC-JP"},
                {"SHIFT_JIS"},    {"TCVN5712-1", true}, {"BIG5-HKSCS", true},
                {"CP1255", true}, {"GB18030"},          {"UTF-8"}};
static const Codeset* codeset;  // of this input

// In the place of the process's converters. The names are those that the linker's --wrap calls.
extern "C" {
iconv_t __wrap__Z16get_ansi_codesetv() { return codeset->from_utf8; }
iconv_t __wrap__Z16get_utf8_codesetv() { return codeset->to_utf8; }
}

// What a conversion gives: its text up to the terminator, and what it returns.
using Outcome = std::pair<std::string, size_t>;

static Outcome outcome(size_t (*convert)(char*, const char*, size_t), const std::string& text,
                       size_t size) {
  std::vector<char> area(size);  // of its exact size, so overruns are seen
  const size_t count = convert(area.data(), text.c_str(), size);
  return {area.data(), count};
}

// What becomes of the next character, or byte that is none.
struct Step {
  size_t length;  // of it in the text; 0 where the text must end
  std::string made;
  bool in_run;  // the converter goes on, and may use the last byte of the area
};

// A text converted a character at a time, whose next one `step` converts.
static Outcome model(Step (*step)(std::string_view), std::string_view text, size_t size) {
  std::string whole;
  size_t left = size;
  for (bool in_run = false; !text.empty() && (left > 1 || in_run);) {
    const Step next = step(text);
    if (next.length == 0) return {whole, 0};
    if (next.made.size() > left) break;
    left -= next.made.size();
    if (left > 0) whole += next.made;  // in the last byte the terminator replaces it
    text.remove_prefix(next.length);
    in_run = next.in_run;
  }
  return {whole, size - left};
}

// What `character` alone becomes; nothing where the converter refuses it.
static std::string converted(iconv_t converter, std::string_view character) {
  char *in = const_cast<char*>(character.data()), made[64], *out = made;
  size_t in_left = character.size(), out_left = sizeof made;
  const bool valid = iconv(converter, &in, &in_left, &out, &out_left) != SIZE_MAX;
  iconv(converter, nullptr, nullptr, &out, &out_left);
  return valid ? std::string(made, out) : "";
}

// Each run of the converter may use the last byte; an invalid byte ends a run.
static Step step_in(std::string_view text) {
  for (size_t length = 1; length <= std::min<size_t>(text.size(), 4); ++length) {
    const std::string made = converted(codeset->to_utf8, text.substr(0, length));
    if (!made.empty()) return {length, made, true};
  }
  return {1, "?", false};
}

static Step step_out(std::string_view text) {
  const int byte = mbt_byte(text.data(), text.size());
  if (byte == kMbtBroken) return {};
  if (byte != kMbtNone) return {kMbtLength, std::string(1, static_cast<char>(byte)), false};
  const auto length = static_cast<size_t>(std::max(utf8_mblen(text.data(), text.size()), 1));
  const std::string same(text.substr(0, length));
  if (length == 1 || Needs_conversion == 0) return {length, same, false};
  const std::string made = converted(codeset->from_utf8, same);
  return {length, made.empty() ? "?" : made, false};
}

static std::string through_stream(std::string text, int size) {
  std::string all, area(static_cast<size_t>(size), '!');
  FILE* stream = fmemopen(text.data(), text.size(), "r");
  while (vxfgets(area.data(), size, stream) != nullptr) all += area.c_str();
  vxfclose(stream);
  return all;
}

void check_input(std::string_view input) {
  // No model for tags (U+E0000): the platform's converters leave them out if there is room.
  if (input.size() < 2 || input.find("\xF3\xA0") != input.npos) return;
  codeset = &codesets[static_cast<uint8_t>(input[0]) % std::size(codesets)];
  assert(codeset->to_utf8 != reinterpret_cast<iconv_t>(-1));
  const bool is_utf8 = codeset->name == std::string_view("UTF-8");
  Needs_conversion = is_utf8 ? 0 : 1;
  Ansi_keeps_ascii = codeset->name[0] != 'T';  // TCVN has letters among the controls
  const size_t room = std::max<uint8_t>(static_cast<uint8_t>(input[1]), 1);
  const std::string text = std::string(input.substr(2)).c_str();

  const Outcome in = outcome(utf8_mbs, text, room), out = outcome(ansi_mbs, text, room);
  if (!codeset->combines) assert(out == model(step_out, text, room));
  if (!codeset->combines && !is_utf8) assert(in == model(step_in, text, room));
  const std::string whole = outcome(utf8_mbs, text, 6 * text.size() + 1).first;
  assert(through_stream(text, 8 + static_cast<int>(room)) == whole);  // room for any character
}

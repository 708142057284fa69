// Both converters, in the codeset that the first byte chooses and into an area of the size that
// the second one gives: it holds the beginning of the whole conversion, as far as there is room.
// And line by line from a stream, where the pieces are the whole.
#include <iconv.h>

#include <vector>

#include "fuzz/harness.h"
#include "liblocal/text/codesets.h"
#include "liblocal/text/utf8.h"
#include "liblocal/text/utf8_codec.h"
#include "liblocal/text/utf8_convert.h"

constexpr size_t kLongest = 6;  // bytes that one becomes in any codeset

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

using Converter = size_t (*)(char*, const char*, size_t);

static std::string converted(Converter convert, const std::string& text, size_t size) {
  std::vector<char> area(size);  // of its exact size, so overruns are seen
  assert(convert(area.data(), text.c_str(), size) <= size);
  return area.data();
}

// Returns the whole conversion.
static std::string check_converter(Converter convert, const std::string& text, size_t room) {
  const std::string whole = converted(convert, text, kLongest * text.size() + 1);
  const std::string part = converted(convert, text, room);
  if (!codeset->combines) {
    assert(whole.starts_with(part));
    assert(part == whole || part.size() + kLongest >= room);
  }
  return whole;
}

static std::string through_stream(std::string text, int size) {
  std::string all, area(static_cast<size_t>(size), '!');
  FILE* stream = fmemopen(text.data(), text.size(), "r");
  while (vxfgets(area.data(), size, stream) != nullptr) all += area.c_str();
  vxfclose(stream);
  return all;
}

void check_input(std::string_view input) {
  if (input.size() < 2) return;
  codeset = &codesets[static_cast<uint8_t>(input[0]) % std::size(codesets)];
  assert(codeset->to_utf8 != reinterpret_cast<iconv_t>(-1));
  Needs_conversion = codeset->name == std::string_view("UTF-8") ? 0 : 1;
  Ansi_keeps_ascii = codeset->name[0] != 'T';  // TCVN has letters among the controls
  const size_t room = std::max<uint8_t>(static_cast<uint8_t>(input[1]), 1);
  const std::string text = std::string(input.substr(2)).c_str();
  check_converter(ansi_mbs, text, room);
  const std::string whole = check_converter(utf8_mbs, text, room);
  assert(through_stream(text, 8 + static_cast<int>(room)) == whole);  // room for any character
}

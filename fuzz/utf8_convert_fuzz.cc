// Both converters on arbitrary text, in the codeset that the first byte chooses and into an area
// of the size that the second one gives, beside a literal model that converts a character at a
// time; and line by line from a stream, where the pieces are the whole.
#undef NDEBUG
#include <iconv.h>

#include <cassert>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>

#include "liblocal/text/codesets.h"
#include "liblocal/text/utf8.h"
#include "liblocal/text/utf8_codec.h"
#include "liblocal/text/utf8_convert.h"

// The plain locale's first, a UTF-8 one's last. Some converters may hold a character back and
// combine it with the next.
static struct Codeset {
  const char* name;
  bool combines = false;
  iconv_t from_utf8 = iconv_open(name, "UTF-8"), to_utf8 = iconv_open("UTF-8", name);
} codesets[] = {{"ISO8859-1"},        {"ISO-8859-15"},      {"EUC-JP"},       {"SHIFT_JIS"},
                {"TCVN5712-1", true}, {"BIG5-HKSCS", true}, {"CP1255", true}, {"KOI8-R"},
                {"GB18030"},          {"EUC-KR"},           {"UTF-8"}};
static const Codeset* codeset;  // of this input

static bool is_utf8() { return codeset == std::end(codesets) - 1; }

// What a conversion gives: its text up to the terminator, and what it returns.
struct Outcome {
  std::string text;
  size_t count;
  bool operator==(const Outcome&) const = default;
};

using Converter = size_t (*)(char* output, const char* input, size_t size);

static Outcome outcome(Converter convert, const std::string& text, size_t size) {
  std::string area(size + 1, '!');
  const size_t count = convert(area.data(), text.c_str(), size);
  assert(area[size] == '!');
  assert(size == 0 || memchr(area.data(), '\0', size) != nullptr);
  return {size == 0 ? "" : area.c_str(), count};
}

// An area that is filled a character at a time.
class Area {
 public:
  explicit Area(size_t size) : left(size) {}
  bool takes_more() const { return left > 1; }
  // Adds a character if it fits, the last byte of the area included.
  bool add(const std::string& character) {
    if (character.size() > left) return false;
    left -= character.size();
    if (left > 0) whole += character;  // in the last byte the terminator replaces it
    filled += character.size();
    return true;
  }
  Outcome outcome() const { return {whole, filled}; }

 private:
  size_t left, filled = 0;
  std::string whole;
};

// Converts `bytes` alone; false where the converter refuses them.
static bool converts(iconv_t converter, const std::string& bytes, std::string* result) {
  char *in = const_cast<char*>(bytes.data()), made[64], *out = made;
  size_t in_left = bytes.size(), out_left = sizeof made;
  iconv(converter, nullptr, nullptr, nullptr, nullptr);
  const bool valid = iconv(converter, &in, &in_left, &out, &out_left) != SIZE_MAX;
  iconv(converter, nullptr, nullptr, &out, &out_left);
  result->assign(made, out);
  return valid;
}

// The length of the character at `at` in the codeset, and what it is in UTF-8; 0 where there is
// none.
static size_t character_at(const std::string& text, size_t at, std::string* made) {
  for (size_t length = 1; length <= 4 && at + length <= text.size(); ++length) {
    if (converts(codeset->to_utf8, text.substr(at, length), made)) return length;
  }
  return 0;
}

// utf8_mbs where the codeset is another one. Each run of the converter is one step, which may use
// the last byte of the area; an invalid byte ends a run.
static Outcome model_in(const std::string& text, size_t size) {
  Area area(size);
  bool in_run = false;
  for (size_t at = 0; at < text.size() && (in_run || area.takes_more());) {
    std::string made;
    const size_t length = character_at(text, at, &made);
    in_run = length > 0;
    if (!area.add(in_run ? made : "?")) break;
    at += in_run ? length : 1;
  }
  return area.outcome();
}

// utf8_mbs where the codeset is UTF-8.
static Outcome model_copied(const std::string& text, size_t size) {
  std::string whole;
  for (size_t at = 0; at < text.size();) {
    const int valid = utf8_mblen(&text[at], text.size() - at);
    const size_t length = valid > 0 ? static_cast<size_t>(valid) : 1;
    if (whole.size() + length >= size) break;
    whole += text.substr(at, length);
    at += length;
  }
  return {whole, whole.size()};
}

static Outcome model_out(const std::string& text, size_t size) {
  Area area(size);
  for (size_t at = 0; at < text.size() && area.takes_more();) {
    const std::string begin = text.substr(at, 3);
    if (begin.starts_with("\xEF\xA2") || begin.starts_with("\xEF\xA3")) {
      if (begin.size() < 3 || (begin[2] & 0xC0) != 0x80) return {area.outcome().text, 0};
      area.add(std::string(1, static_cast<char>(begin[2] | (begin[1] == '\xA3' ? 0x40 : 0))));
      at += 3;
      continue;
    }
    const int valid = utf8_mblen(&text[at], text.size() - at);
    const size_t length = valid > 0 ? static_cast<size_t>(valid) : 1;
    std::string made = text.substr(at, length);
    if (length > 1 && !is_utf8() && !converts(codeset->from_utf8, text.substr(at, length), &made)) {
      made = "?";
    }
    if (!area.add(made)) break;
    at += length;
  }
  return area.outcome();
}

// The same as the model, in an area of `size` bytes. Where characters combine, the model must be
// that of the whole text; else the text must be a part of the whole one.
static void expect_model(Converter convert, Outcome (*model)(const std::string&, size_t),
                         const std::string& text, size_t size) {
  const size_t ample = 6 * text.size() + 1;
  const Outcome got = outcome(convert, text, size), whole = outcome(convert, text, ample);
  if (!codeset->combines || model(text, ample) == whole) {
    assert(got == model(text, size));
  } else {
    assert(whole.text.starts_with(got.text));
  }
}

static std::string through_stream(const std::string& text, size_t size) {
  std::string all, area(size, '!');
  FILE* stream = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
  while (vxfgets(area.data(), static_cast<int>(size), stream) != nullptr) all += area.c_str();
  vxfclose(stream);
  return all;
}

// In the place of the process's converters. The names are those that the linker's --wrap calls.
extern "C" {
iconv_t __wrap__Z16get_ansi_codesetv() { return codeset->from_utf8; }
iconv_t __wrap__Z16get_utf8_codesetv() { return codeset->to_utf8; }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  codeset = &codesets[data[0] % std::size(codesets)];
  assert(codeset->to_utf8 != reinterpret_cast<iconv_t>(-1));
  Needs_conversion = is_utf8() ? 0 : 1;
  Ansi_keeps_ascii = codeset->name[0] != 'T';  // TCVN has letters among the controls
  const std::string text(std::string(reinterpret_cast<const char*>(data) + 2, size - 2).c_str());
  const size_t room = data[1], ample = 6 * text.size() + 1;

  expect_model(utf8_mbs, is_utf8() ? model_copied : model_in, text, room);
  expect_model(ansi_mbs, model_out, text, room);
  // Room for any character.
  assert(through_stream(text, 8U + room) == outcome(utf8_mbs, text, ample).text);
  return 0;
}

// Both converters on arbitrary text, in the codeset that the first byte chooses and areas of the
// size that the second one gives: terminated within, and piece by piece, in memory and on a
// stream, the same text as in one.
#undef NDEBUG
#include <iconv.h>

#include <cassert>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>

#include "liblocal/text/codesets.h"
#include "liblocal/text/utf8.h"
#include "liblocal/text/utf8_codec.h"
#include "liblocal/text/utf8_convert.h"

// The plain locale's first, a UTF-8 one's last; TCVN and CP1255 compose characters, of two
// or three, and BIG5-HKSCS makes two of one.
static struct Codeset {
  const char* name;
  iconv_t from_utf8 = iconv_open(name, "UTF-8"), to_utf8 = iconv_open("UTF-8", name);
} codesets[] = {{"ISO8859-1"},  {"ISO-8859-15"}, {"EUC-JP"}, {"SHIFT_JIS"},
                {"TCVN5712-1"}, {"BIG5-HKSCS"},  {"CP1255"}, {"UTF-8"}};
static const Codeset* codeset;  // of this input

static std::string converted(size_t (*convert)(char*, const char*, size_t), const std::string& text,
                             size_t size) {
  std::string area(size, '!');
  const size_t written = convert(area.data(), text.c_str(), size);
  if (size > 0) area.resize(strlen(area.c_str()));
  assert(written == area.size() || written == size || written == 0);
  assert(size == 0 ? written == 0 : area.size() < size);
  return area;
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
  const bool utf8 = codeset == std::end(codesets) - 1;
  Needs_conversion = utf8 ? 0 : 1;
  Ansi_keeps_ascii = codeset->name[0] != 'T';  // TCVN has letters among the controls
  const std::string text(std::string(reinterpret_cast<const char*>(data) + 2, size - 2).c_str());

  const std::string in = converted(utf8_mbs, text, 6 * text.size() + 1);
  const std::string part = converted(utf8_mbs, text, data[1]);
  assert(in.starts_with(part) && (utf8 || is_utf8_mbs(part.c_str())));
  assert(through_stream(text, 8U + data[1]) == in);  // any character fits
  assert(converted(ansi_mbs, text, 6 * text.size() + 1)
             .starts_with(converted(ansi_mbs, text, data[1])));
  return 0;
}

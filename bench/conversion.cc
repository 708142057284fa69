// Converting lines of 1 KiB between UTF-8 and the locale's codeset, beside one call of the
// platform's converter for the whole line; in a UTF-8 locale beside a memcpy, once its end is
// found. A line that the codeset has no characters for is left out.
#include <iconv.h>
#include <langinfo.h>

#include <cstring>
#include <string>

#include "bench/compare.h"
#include "bench/groups.h"
#include "liblocal/text/codesets.h"
#include "liblocal/text/utf8_convert.h"

namespace {

constexpr size_t kLine = 1024;
constexpr size_t kRoom = 6 * kLine + 1;

alignas(64) char output[kRoom];  // of all, since its place matters to a copy

const char* codeset() {
  const char* name = nl_langinfo(CODESET);
  return strcmp(name, "ANSI_X3.4-1968") == 0 ? "ISO8859-1" : name;
}

// Converts `text` into `output`; false where a character is missing.
bool convert_whole(iconv_t converter, const std::string& text, size_t* made) {
  char* in = const_cast<char*>(text.data());
  char* out = output;
  size_t in_left = text.size();
  size_t out_left = kRoom;
  const bool whole = iconv(converter, &in, &in_left, &out, &out_left) != SIZE_MAX;
  *made = kRoom - out_left;
  return whole;
}

void measure(const std::string& title, size_t (*convert)(char*, const char*, size_t),
             iconv_t platform, const std::string& line) {
  size_t room = kRoom;
  touch(room);  // no constant where it is used
  auto path = [&] { touch(convert(output, line.c_str(), room)); };
  if (strcmp(codeset(), "UTF-8") == 0) {
    compare(title.c_str(), 1.5, path, [&] {
      memcpy(output, line.c_str(), strlen(line.c_str()) + 1);
      touch(output);
    });
  } else {
    compare(title.c_str(), 1.5, path, [&] {
      size_t made = 0;
      convert_whole(platform, line, &made);
      touch(output);
    });
  }
}

}  // namespace

void measure_conversion() {
  const struct {
    std::string title;
    const char* text;
  } rows[] = {
      {"ASCII", "The fuse does not go on. "},
      {"German", "Die Sicherung l\xC3\xA4uft nicht weiter. "},
      {"Japanese",
       "\xE3\x83\x92\xE3\x83\xA5\xE3\x83\xBC\xE3\x82\xBA\xE3\x81\xAF\xE5\x8B\x95"
       "\xE3\x81\x8D\xE3\x81\xBE\xE3\x81\x9B\xE3\x82\x93\xE3\x80\x82"},
      {"letters and backslashes", "\xC3\xA4\\"},
  };
  iconv_t to_utf8 = iconv_open("UTF-8", codeset());
  iconv_t from_utf8 = iconv_open(codeset(), "UTF-8");
  for (const auto& row : rows) {
    std::string utf8;
    while (utf8.size() + strlen(row.text) <= kLine) utf8 += row.text;
    size_t made = 0;
    if (!convert_whole(from_utf8, utf8, &made)) {
      iconv(from_utf8, nullptr, nullptr, nullptr, nullptr);
      continue;
    }
    measure(row.title + " to UTF-8", utf8_mbs, to_utf8, std::string(output, made));
    measure(row.title + " from UTF-8", ansi_mbs, from_utf8, utf8);
  }
  iconv_close(to_utf8);
  iconv_close(from_utf8);
}

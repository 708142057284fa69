// Formatting, printing, reading and converting lines, each beside the platform's own.
#include <iconv.h>
#include <langinfo.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "bench/compare.h"
#include "liblocal/text/codesets.h"
#include "liblocal/text/i18n_printf.h"
#include "liblocal/text/utf8.h"
#include "liblocal/text/utf8_convert.h"
#include "liblocal/text/vxprint.h"

namespace {

constexpr const char* kHost = "manager.example.com";

// A file of lines of 80 bytes.
FILE* lines() {
  FILE* stream = tmpfile();
  require(stream != nullptr);
  for (int line = 0; line < 1000; ++line) fprintf(stream, "%079d\n", line);
  rewind(stream);
  return stream;
}

// The next of them, over and over.
void read(FILE* stream, char* (*read_line)(char*, int, FILE*)) {
  char text[1024];
  if (read_line(text, sizeof text, stream) == nullptr) rewind(stream);
  touch(text);
}

void measure_lines() {
  char text[256];
  constexpr const char* kMessage = "%s: no answer after %d tries\n";
  compare(
      "format a message", 1.3, [&] { touch(i18n_sprintf(text, kMessage, kHost, 5)); },
      [&] { touch(snprintf(text, sizeof text, kMessage, kHost, 5)); });
  constexpr const char* kNumbers = "%5d %x %s";
  compare(
      "format numbers", 2, [&] { touch(i18n_sprintf(text, kNumbers, 161, 0xBEEF, kHost)); },
      [&] { touch(snprintf(text, sizeof text, kNumbers, 161, 0xBEEF, kHost)); });
  FILE* nowhere = fopen("/dev/null", "w");
  require(nowhere != nullptr);
  compare(
      "print a line", 2, [&] { vxfprintf(nowhere, kMessage, kHost, 5); },
      [&] { fprintf(nowhere, kMessage, kHost, 5); });
  fclose(nowhere);

  FILE *marked = lines(), *converted = lines(), *plain = lines();
  utf8_fp(marked);
  compare(
      "read a line of a marked stream", 4, [&] { read(marked, vxfgets); },
      [&] { read(plain, fgets); });
  compare(
      "read a line and convert it", 5, [&] { read(converted, vxfgets); },
      [&] { read(plain, fgets); });
}

constexpr size_t kLine = 1024;
constexpr size_t kRoom = 6 * kLine + 1;

alignas(64) char output[kRoom];  // of all, since its place matters to a copy

// Converting a line beside one call of the platform's converter for the whole line; in a UTF-8
// locale beside a memcpy, once its end is found.
void measure_conversion(const std::string& title, size_t (*convert)(char*, const char*, size_t),
                        iconv_t platform, const std::string& line) {
  size_t room = kRoom;
  touch(room);  // no constant where it is used
  const bool is_utf8 = strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
  compare(
      title.c_str(), 1.5, [&] { touch(convert(output, line.c_str(), room)); },
      [&] {
        if (is_utf8) {
          memcpy(output, line.c_str(), strlen(line.c_str()) + 1);
        } else {
          char* in = const_cast<char*>(line.data());
          char* out = output;
          size_t in_left = line.size();
          size_t out_left = kRoom;
          require(iconv(platform, &in, &in_left, &out, &out_left) != SIZE_MAX);
        }
        touch(output);
      });
}

// Lines of 1 KiB. One that the codeset has no characters for is left out.
void measure_conversions() {
  const struct {
    std::string title;
    const char* text;
  } rows[] = {
      {"ASCII", "The fuse does not go on. "},
      {"German", "Die Sicherung läuft nicht weiter. "},
      {"Japanese", "ヒューズは動きません。"},
      {"letters and backslashes", "ä\\"},
  };
  const char* codeset = nl_langinfo(CODESET);
  if (strcmp(codeset, "ANSI_X3.4-1968") == 0) codeset = "ISO8859-1";
  iconv_t to_utf8 = iconv_open("UTF-8", codeset);
  iconv_t from_utf8 = iconv_open(codeset, "UTF-8");
  for (const auto& row : rows) {
    std::string utf8;
    while (utf8.size() + strlen(row.text) <= kLine) utf8 += row.text;
    ansi_mbs(output, utf8.c_str(), kRoom);
    const std::string ansi = output;
    if (ansi.find('?') != std::string::npos) continue;
    measure_conversion(row.title + " to UTF-8", utf8_mbs, to_utf8, ansi);
    measure_conversion(row.title + " from UTF-8", ansi_mbs, from_utf8, utf8);
  }
  iconv_close(to_utf8);
  iconv_close(from_utf8);
}

}  // namespace

void measure_text() {
  learn_codeset();
  measure_lines();
  measure_conversions();
}

// Formatting, printing and reading lines, each beside the platform's own.
#include <cstdio>

#include "bench/compare.h"
#include "bench/groups.h"
#include "liblocal/text/i18n_printf.h"
#include "liblocal/text/utf8.h"
#include "liblocal/text/vxprint.h"

namespace {

constexpr const char* kHost = "manager.example.com";

// A file of lines of 80 bytes, read over and over.
struct Lines {
  FILE* stream = tmpfile();
  char text[1024] = {};

  Lines() {
    require(stream != nullptr);
    for (int line = 0; line < 1000; ++line) fprintf(stream, "%079d\n", line);
    rewind(stream);
  }
  ~Lines() { vxfclose(stream); }
  Lines(const Lines&) = delete;
  Lines& operator=(const Lines&) = delete;

  void read(char* (*read_line)(char*, int, FILE*)) {
    if (read_line(text, sizeof text, stream) == nullptr) rewind(stream);
    touch(text);
  }
};

}  // namespace

void measure_text() {
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

  Lines marked, converted, plain;
  utf8_fp(marked.stream);
  compare(
      "read a line of a marked stream", 4, [&] { marked.read(vxfgets); },
      [&] { plain.read(fgets); });
  compare(
      "read a line and convert it", 5, [&] { converted.read(vxfgets); },
      [&] { plain.read(fgets); });
}

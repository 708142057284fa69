// Converting a line of 1 KiB between UTF-8 and the locale's codeset, beside one call of
// the platform's converter for the whole line; in a UTF-8 locale beside a memcpy, once its
// end is found.
#include <iconv.h>
#include <langinfo.h>

#include <clocale>
#include <cstring>

#include "bench/paths.h"
#include "liblocal/text/utf8_convert.h"

namespace {

constexpr size_t kLine = 1024;
constexpr size_t kRoom = 6 * kLine + 1;

alignas(64) char output[kRoom];  // of all, for its place matters to a copy

bool in_utf8() { return strcmp(nl_langinfo(CODESET), "UTF-8") == 0; }

std::string repeated(const char* word) {
  std::string line;
  while (line.size() + strlen(word) <= kLine) line += word;
  return line;
}

// German: a letter beyond ASCII now and then.
const std::string& utf8_line() {
  static const std::string line = repeated("Die Sicherung l\xC3\xA4uft nicht weiter. ");
  return line;
}

const std::string& local_line() {
  static const std::string line =
      in_utf8() ? utf8_line() : repeated("Die Sicherung l\xE4uft nicht weiter. ");
  return line;
}

void convert(benchmark::State& state, size_t (*converter)(char*, const char*, size_t),
             const std::string& line) {
  size_t room = kRoom;
  benchmark::DoNotOptimize(room);  // no constant where it is used
  for (auto _ : state) benchmark::DoNotOptimize(converter(output, line.c_str(), room));
}

void copy_floor(benchmark::State& state, const std::string& line) {
  for (auto _ : state) {
    memcpy(output, line.c_str(), strlen(line.c_str()) + 1);
    benchmark::DoNotOptimize(output);
    benchmark::ClobberMemory();
  }
}

void convert_floor(benchmark::State& state, const char* to, const char* from,
                   const std::string& line) {
  if (in_utf8()) return copy_floor(state, line);
  iconv_t converter = iconv_open(to, from);
  for (auto _ : state) {
    char* in = const_cast<char*>(line.data());
    char* out = output;
    size_t in_left = line.size();
    size_t out_left = kRoom;
    iconv(converter, &in, &in_left, &out, &out_left);
    benchmark::DoNotOptimize(output);
    benchmark::ClobberMemory();
  }
  iconv_close(converter);
}

void to_utf8(benchmark::State& state) { convert(state, utf8_mbs, local_line()); }
void to_utf8_floor(benchmark::State& state) {
  convert_floor(state, "UTF-8", "ISO8859-1", local_line());
}
void from_utf8(benchmark::State& state) { convert(state, ansi_mbs, utf8_line()); }
void from_utf8_floor(benchmark::State& state) {
  convert_floor(state, "ISO8859-1", "UTF-8", utf8_line());
}

constexpr Path kPaths[] = {
    {"convert a line to UTF-8", "to_utf8", to_utf8, to_utf8_floor, 1.5},
    {"convert a line from UTF-8", "from_utf8", from_utf8, from_utf8_floor, 1.5},
};

}  // namespace

// In the locale of the environment; "C" counts as ISO 8859-1.
int main(int argc, char** argv) {
  setlocale(LC_ALL, "");
  return measure(argc, argv, kPaths);
}

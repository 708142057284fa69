// Converting lines of 1 KiB between UTF-8 and the locale's codeset, beside one call of the
// platform's converter for the whole line; in a UTF-8 locale beside a memcpy, once its end
// is found. A line that the codeset has no characters for is left out.
#include <iconv.h>
#include <langinfo.h>

#include <clocale>
#include <cstring>

#include "bench/paths.h"
#include "liblocal/text/codesets.h"
#include "liblocal/text/utf8_convert.h"

namespace {

constexpr size_t kLine = 1024;
constexpr size_t kRoom = 6 * kLine + 1;

alignas(64) char output[kRoom];  // of all, for its place matters to a copy

// A line by its word, in UTF-8 and in the locale's codeset.
struct Line {
  const char* word;
  std::string utf8 = "", local = "";
};

enum { kAscii, kGerman, kJapanese, kMixed };

Line lines[] = {{"The fuse does not go on. "},
                {"Die Sicherung l\xC3\xA4uft nicht weiter. "},
                {"\xE3\x83\x92\xE3\x83\xA5\xE3\x83\xBC\xE3\x82\xBA\xE3\x81\xAF\xE5\x8B\x95"
                 "\xE3\x81\x8D\xE3\x81\xBE\xE3\x81\x9B\xE3\x82\x93\xE3\x80\x82"},
                {"\xC3\xA4\\"}};

const char* codeset() {
  const char* name = nl_langinfo(CODESET);
  return strcmp(name, "ANSI_X3.4-1968") == 0 ? "ISO8859-1" : name;
}

bool in_utf8() { return strcmp(codeset(), "UTF-8") == 0; }

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

void fill_lines() {
  iconv_t converter = iconv_open(codeset(), "UTF-8");
  for (Line& line : lines) {
    while (line.utf8.size() + strlen(line.word) <= kLine) line.utf8 += line.word;
    size_t made = 0;
    if (convert_whole(converter, line.utf8, &made)) line.local.assign(output, made);
  }
  iconv_close(converter);
}

void convert(benchmark::State& state, size_t (*converter)(char*, const char*, size_t),
             const std::string& line) {
  size_t room = kRoom;
  benchmark::DoNotOptimize(room);  // no constant where it is used
  for (auto _ : state) benchmark::DoNotOptimize(converter(output, line.c_str(), room));
}

void convert_floor(benchmark::State& state, const char* to, const char* from,
                   const std::string& line) {
  iconv_t converter = iconv_open(to, from);
  for (auto _ : state) {
    size_t made = 0;
    if (in_utf8()) {
      memcpy(output, line.c_str(), strlen(line.c_str()) + 1);
    } else {
      convert_whole(converter, line, &made);
    }
    benchmark::DoNotOptimize(output);
    benchmark::ClobberMemory();
  }
  iconv_close(converter);
}

template <int line>
void in(benchmark::State& state) {
  convert(state, utf8_mbs, lines[line].local);
}
template <int line>
void in_floor(benchmark::State& state) {
  convert_floor(state, "UTF-8", codeset(), lines[line].local);
}
template <int line>
void out(benchmark::State& state) {
  convert(state, ansi_mbs, lines[line].utf8);
}
template <int line>
void out_floor(benchmark::State& state) {
  convert_floor(state, codeset(), "UTF-8", lines[line].utf8);
}

// Two for each line.
constexpr Path kPaths[] = {
    {"ASCII to UTF-8", "ascii_in", in<kAscii>, in_floor<kAscii>, 1.5},
    {"ASCII from UTF-8", "ascii_out", out<kAscii>, out_floor<kAscii>, 1.5},
    {"German to UTF-8", "german_in", in<kGerman>, in_floor<kGerman>, 1.5},
    {"German from UTF-8", "german_out", out<kGerman>, out_floor<kGerman>, 1.5},
    {"Japanese to UTF-8", "japanese_in", in<kJapanese>, in_floor<kJapanese>, 1.5},
    {"Japanese from UTF-8", "japanese_out", out<kJapanese>, out_floor<kJapanese>, 1.5},
    {"letters and backslashes to UTF-8", "mixed_in", in<kMixed>, in_floor<kMixed>, 1.5},
    {"letters and backslashes from UTF-8", "mixed_out", out<kMixed>, out_floor<kMixed>, 1.5},
};

}  // namespace

// In the locale of the environment; "C" counts as ISO 8859-1.
int main(int argc, char** argv) {
  setlocale(LC_ALL, "");
  learn_codeset();
  fill_lines();
  std::vector<Path> paths;
  for (size_t i = 0; i < std::size(kPaths); ++i) {
    if (!lines[i / 2].local.empty()) paths.push_back(kPaths[i]);
  }
  return measure(argc, argv, paths);
}

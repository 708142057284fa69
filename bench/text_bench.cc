// Formatting, printing and reading lines, each measured beside the platform's own.
#include <clocale>
#include <cstdio>
#include <cstdlib>

#include "bench/paths.h"
#include "liblocal/text/codesets.h"
#include "liblocal/text/i18n_printf.h"
#include "liblocal/text/utf8.h"
#include "liblocal/text/vxprint.h"

namespace {

constexpr const char* kHost = "manager.example.com";

void format_message(benchmark::State& state) {
  char text[256];
  for (auto _ : state) {
    benchmark::DoNotOptimize(i18n_sprintf(text, "%s: no answer after %d tries\n", kHost, 5));
    benchmark::DoNotOptimize(text);
  }
}

void format_message_floor(benchmark::State& state) {
  char text[256];
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        snprintf(text, sizeof text, "%s: no answer after %d tries\n", kHost, 5));
    benchmark::DoNotOptimize(text);
  }
}

void format_numbers(benchmark::State& state) {
  char text[256];
  for (auto _ : state) {
    benchmark::DoNotOptimize(i18n_sprintf(text, "%5d %x %s", 161, 0xBEEF, kHost));
    benchmark::DoNotOptimize(text);
  }
}

void format_numbers_floor(benchmark::State& state) {
  char text[256];
  for (auto _ : state) {
    benchmark::DoNotOptimize(snprintf(text, sizeof text, "%5d %x %s", 161, 0xBEEF, kHost));
    benchmark::DoNotOptimize(text);
  }
}

// A stream that goes nowhere, so that only the way there counts.
FILE* nowhere() {
  static FILE* stream = fopen("/dev/null", "w");
  if (stream == nullptr) exit(1);
  return stream;
}

void print_line(benchmark::State& state) {
  for (auto _ : state) vxfprintf(nowhere(), "%s: no answer after %d tries\n", kHost, 5);
}

void print_line_floor(benchmark::State& state) {
  for (auto _ : state) fprintf(nowhere(), "%s: no answer after %d tries\n", kHost, 5);
}

// Lines of 80 bytes, over and over.
template <char* (*read)(char*, int, FILE*)>
void read_lines(benchmark::State& state, bool marked) {
  FILE* stream = tmpfile();
  if (stream == nullptr) exit(1);
  for (int line = 0; line < 1000; ++line) fprintf(stream, "%079d\n", line);
  rewind(stream);
  if (marked) utf8_fp(stream);
  char text[1024];
  for (auto _ : state) {
    if (read(text, sizeof text, stream) == nullptr) rewind(stream);
    benchmark::DoNotOptimize(text);
  }
  vxfclose(stream);
}

void read_marked(benchmark::State& state) { read_lines<vxfgets>(state, true); }
void read_converted(benchmark::State& state) { read_lines<vxfgets>(state, false); }
void read_floor(benchmark::State& state) { read_lines<fgets>(state, false); }

constexpr Path kPaths[] = {
    {"format a message into a buffer", "format", format_message, format_message_floor, 1.2},
    {"format numbers into a buffer", "numbers", format_numbers, format_numbers_floor, 1.2},
    {"print a line", "print", print_line, print_line_floor, 1.6},
    {"read a line of a marked stream", "marked", read_marked, read_floor, 1.3},
    {"read a line and convert it", "converted", read_converted, read_floor, 2.0},
};

}  // namespace

// In the locale of the environment: the first conversion fixes it for the process.
int main(int argc, char** argv) {
  setlocale(LC_ALL, "");
  learn_codeset();
  return measure(argc, argv, kPaths);
}

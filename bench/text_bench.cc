// Formatting and printing, each measured beside the platform's own.
#include <clocale>
#include <cstdio>
#include <cstdlib>

#include "bench/paths.h"
#include "liblocal/text/i18n_printf.h"
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

// Printing formats, converts and prints again: three steps for the platform's one.
constexpr Path kPaths[] = {
    {"format a message into a buffer", "format", format_message, format_message_floor, 1.2},
    {"print a line", "print", print_line, print_line_floor, 2.5},
};

}  // namespace

// In the locale of the environment: the first conversion fixes it for the process.
int main(int argc, char** argv) {
  setlocale(LC_ALL, "");
  return measure(argc, argv, kPaths);
}

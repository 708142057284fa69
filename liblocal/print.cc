#include "liblocal/print.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include "liblocal/c_memory.h"
#include "liblocal/log_time.h"
#include "liblocal/progname.h"
#include "liblocal/vxprint.h"

namespace {

constexpr size_t kNameSize = 64;  // the part of the program's name that messages show

std::atomic<int> timestamps;
std::atomic<print_accrual_hook> accrual_hook;

// A notice or a warning is no part of a chain of failures.
bool is_failure(const char* text) {
  for (const char* word : {"notice,", "notice:", "warning,", "warning:"}) {
    if (strstr(text, word) != nullptr) return false;
  }
  return true;
}

// The prefix and the formatted message; null without memory.
[[gnu::format(printf, 1, 0)]] c_unique_ptr<char> format_message(const char* format,
                                                                va_list arguments) {
  char prefix[kMessagePrefixSize];
  char* message = nullptr;
  if (vasprintf(&message, format, arguments) < 0) return nullptr;
  c_unique_ptr<char> owner(message);
  char* text = nullptr;
  if (asprintf(&text, "%s%s", print_prefix(prefix), message) < 0) return nullptr;
  return c_unique_ptr<char>(text);
}

}  // namespace

char* print_prefix(char* buffer) {
  char stamp[kLogTimeSize] = "";
  char name[kNameSize];
  const bool stamped = timestamps != 0;
  if (stamped) log_entry_time(time(nullptr), stamp);
  snprintf(buffer, kMessagePrefixSize, "%s%s%s: ", stamp, stamped ? " " : "",
           vx_get_progname(name, sizeof name));
  return buffer;
}

void print_timestamps(int on) { timestamps = on; }

void print_set_accrual_hook(print_accrual_hook hook) { accrual_hook = hook; }

void vprinterr(const char* format, va_list arguments) {
  c_unique_ptr<char> text = format_message(format, arguments);
  if (text == nullptr) return;
  print_accrual_hook hook = accrual_hook;
  if (hook != nullptr && is_failure(text.get())) hook(text.get());
  vxfprintf(stderr, "%s", text.get());
}

void printerr(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vprinterr(format, arguments);
  va_end(arguments);
}

void vprintinfo(const char* format, va_list arguments) {
  c_unique_ptr<char> text = format_message(format, arguments);
  if (text != nullptr) vxfprintf(stdout, "%s", text.get());
}

void printinfo(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vprintinfo(format, arguments);
  va_end(arguments);
}

#include "liblocal/messages/print.h"

#include <unistd.h>

#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "liblocal/base/c_memory.h"
#include "liblocal/base/varp.h"
#include "liblocal/messages/log_time.h"
#include "liblocal/messages/progname.h"
#include "liblocal/text/i18n_printf.h"
#include "liblocal/text/text_view.h"
#include "liblocal/text/vxprint.h"

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

// The prefix and `format` as one format; null without memory. A '%' in the program's name
// is doubled, which makes it text.
c_unique_ptr<char> prefixed(const char* format) {
  const size_t length = strlen(format);
  c_unique_ptr<char> whole(
      static_cast<char*>(malloc(kMessagePrefixSize + kNameSize + length)));  // all may be '%'
  if (whole == nullptr) return nullptr;
  char prefix[kMessagePrefixSize];
  char* end = whole.get();
  for (const char* at = print_prefix(prefix); *at != '\0'; ++at) {
    if (*at == '%') *end++ = '%';
    *end++ = *at;
  }
  memcpy(end, format, length + 1);
  return whole;
}

}  // namespace

char* print_prefix(char* buffer) {
  char stamp[kLogTimeSize] = "";
  char name[kNameSize];
  const bool stamped = timestamps != 0;
  if (stamped) {
    log_time_note_zone();
    log_entry_time(time(nullptr), stamp);
  }
  snprintf(buffer, kMessagePrefixSize, "%s%s%s: ", stamp, stamped ? " " : "",
           vx_get_progname(name, sizeof name));
  return buffer;
}

char* print_prefix_in_handler(char* buffer) {
  char* at = buffer;
  if (timestamps != 0) {
    at = log_time_in_handler(at);
    *at++ = ' ';
  }
  if (_vx_peek_progname(at, kNameSize)) {
    at += strlen(at);
  } else {
    at += text_copy("(pid ", at, kNameSize);
    at = std::to_chars(at, buffer + kMessagePrefixSize, getpid()).ptr;
    *at++ = ')';
  }
  memcpy(at, ": ", sizeof ": ");
  return buffer;
}

void print_timestamps(int on) {
  if (on != 0) log_time_note_zone();
  timestamps = on;
}

void print_set_accrual_hook(print_accrual_hook hook) { accrual_hook = hook; }

// The prefixed format takes the arguments that `format` does.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

void vprinterr(const char* format, va_list arguments) {
  c_unique_ptr<char> whole = prefixed(format);
  if (whole == nullptr) return;
  char* area = nullptr;
  i18n_vsprintf(nullptr, &area, whole.get(), arguments);
  c_unique_ptr<char> text(area);
  if (text == nullptr) return;
  print_accrual_hook hook = accrual_hook;
  if (hook != nullptr && is_failure(text.get())) hook(text.get());
  vxfprintf(stderr, "%s", text.get());
}

void vprintinfo(const char* format, va_list arguments) {
  c_unique_ptr<char> whole = prefixed(format);
  if (whole != nullptr) vxvfprintf(stdout, whole.get(), arguments);
}

#pragma GCC diagnostic pop

void printerr(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vprinterr(format, arguments);
  va_end(arguments);
}

void printinfo(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vprintinfo(format, arguments);
  va_end(arguments);
}

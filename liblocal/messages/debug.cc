#include "liblocal/messages/debug.h"

#include <unistd.h>

#include <cstdlib>

#include "liblocal/base/c_memory.h"
#include "liblocal/messages/print.h"
#include "liblocal/text/i18n_printf.h"
#include "liblocal/text/utf8.h"
#include "liblocal/text/utf8_files.h"
#include "liblocal/text/vxprint.h"

namespace {

std::atomic<FILE*> debug_file;
std::atomic<int> lines_descriptor = STDERR_FILENO;  // for a handler, which may not call fileno

[[gnu::format(printf, 2, 0)]] void write_line(const char* word, const char* format,
                                              va_list arguments) {
  FILE* file = debug_file;
  if (file == nullptr) file = stderr;
  char prefix[kMessagePrefixSize];
  vxfprintf(file, "%s%s", print_prefix(prefix), word);
  char* area = nullptr;
  i18n_vsprintf(nullptr, &area, format, arguments);
  c_unique_ptr<char> text(area);
  if (text != nullptr) vxfprintf(file, "%s", text.get());
}

// Forgets the debug file and closes it. Returns the result of closing.
int close_debug_file() {
  lines_descriptor = STDERR_FILENO;
  FILE* file = debug_file.exchange(nullptr);
  return file == nullptr ? 0 : vxfclose(file);
}

// The one level above 0 that verbprint writes; -1 when it writes them all.
int strict_level() {
  const char* text = getenv("KIV_STRICT_LEVEL");
  return text == nullptr ? -1 : atoi(text);
}

}  // namespace

void debugprintf(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write_line("", format, arguments);
  va_end(arguments);
}

void dfprintf(int level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vdfprintf(level, format, arguments);
  va_end(arguments);
}

void vdfprintf(int level, const char* format, va_list arguments) {
  if (Debug >= level) write_line("", format, arguments);
}

void vdprintf(int level, const char* format, va_list arguments) {
  if (Debug >= level) write_line(level == 0 ? "Diagnostic: " : "", format, arguments);
}

void verbprint(int level, const char* format, ...) {
  if (Debug < level) return;
  if (int strict = strict_level(); level > 0 && strict != -1 && strict != level) return;
  va_list arguments;
  va_start(arguments, format);
  vxvfprintf(stderr, format, arguments);
  va_end(arguments);
}

void dfopen(const char* path) {
  if (path == nullptr || *path == '\0') {
    if (Debug > 1) debugprintf("dfopen: filename is null ... \n");
    return;
  }
  close_debug_file();
  FILE* file = utf8_fopen(path, "ae");
  if (file != nullptr) {
    setbuf(file, nullptr);
    lines_descriptor = fileno(file);
    debug_file = file;
  }
  if (Debug <= 1) return;
  if (file != nullptr) {
    debugprintf("dfopen: Opened file %s for dprintf writing.\n", path);
  } else {
    debugprintf("dfopen: Unable to open file %s for writing.\n", path);
  }
}

void dfclose() {
  if (close_debug_file() != 0 && Debug > 1) debugprintf("dfclose: File stream close failed.\n");
}

FILE* dfopen_filehndl() { return debug_file; }

int debug_descriptor() { return lines_descriptor; }

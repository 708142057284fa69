#include "trap/message.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "liblocal/messages/catgets.h"
#include "liblocal/text/utf8.h"
#include "liblocal/text/utf8_files.h"
#include "liblocal/text/vxprint.h"

namespace {

constexpr int kReadLimit = kLineSize - 1;  // a line of up to 1022 bytes and its terminator
constexpr size_t kWrapColumn = 40;         // bytes of a segment that never need a break
constexpr size_t kNoBreak = SIZE_MAX;

bool is_blank(char c) { return isspace(static_cast<unsigned char>(c)) != 0; }

// Where the segment from `start` to the end of `line` is to be broken: at the last
// white space up to its 42nd byte. A longer word is left whole: the break is then
// at the first white space behind it.
size_t find_break(const char* line, size_t length, size_t start) {
  size_t last = start + kWrapColumn + 1;
  for (size_t at = last + 1; at > start; --at) {
    if (is_blank(line[at - 1])) return at - 1;
  }
  for (size_t at = last + 1; at < length; ++at) {
    if (is_blank(line[at])) return at;
  }
  return kNoBreak;
}

// Reads the next line into `line` of kLineSize bytes. A signal, such as the one of a debug
// command, that interrupts the wait for it does not end the input.
bool next_line(char* line, FILE* source) {
  while (vxfgets(line, kReadLimit, source) == nullptr) {
    if (ferror(source) == 0 || errno != EINTR) return false;
    clearerr(source);
  }
  return true;
}

}  // namespace

FILE* open_message_source(const char* file) {
  FILE* source = stdin;
  if (file != nullptr && *file != '\0' && strcmp(file, "-") != 0) {
    // A signal, such as the one of a debug command, does not end the wait for a FIFO's writer.
    do source = utf8_fopen(file, "r");
    while (source == nullptr && errno == EINTR);
    if (source == nullptr) {
      vxprintf(vxcatgets(Catd, kCommandMessageSet, 25, "file %s does not exist\n"), file);
      exit(1);
    }
  }
  utf8_fp(source);
  return source;
}

c_unique_ptr<char> read_message(FILE* source, bool wrap) {
  c_unique_ptr<char> message;
  char line[kLineSize];
  char wrapped[kLineSize];
  while (next_line(line, source)) {
    if (message != nullptr) continue;
    if (wrap) wrap_line(line, wrapped);
    // Without memory for this line the next one gets its chance.
    message.reset(strdup(wrap ? wrapped : line));
  }
  if (source != stdin) vxfclose(source);
  if (message != nullptr && *message != '\0') message.get()[strlen(message.get()) - 1] = '\0';
  return message;
}

void wrap_line(const char* line, char* wrapped) {
  const auto length = static_cast<size_t>(stpcpy(wrapped, line) - wrapped);
  size_t start = 0;
  while (length - start > kWrapColumn) {
    size_t at = find_break(line, length, start);
    if (at == kNoBreak) return;
    start = at + 1;
    // A run of blanks is broken at its first one; the rest of it stays.
    while (at > 0 && is_blank(line[at - 1])) --at;
    wrapped[at] = '\n';
  }
}

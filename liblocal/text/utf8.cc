#include "liblocal/text/utf8.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "liblocal/text/mbt.h"
#include "liblocal/text/utf8_codec.h"
#include "liblocal/text/utf8_convert.h"
#include "liblocal/text/utf8_files.h"
#include "liblocal/threads/c_memory.h"

namespace {

constexpr size_t kMarkedGetsSize = 1024;  // bytes of vxgets's buffer that a marked stream uses
constexpr size_t kPieceSize = 18431;      // bytes of text converted at a time

// Keeps a stream to one thread for a scope.
class StreamLock {
 public:
  explicit StreamLock(FILE* stream) : stream_(stream) { flockfile(stream_); }
  ~StreamLock() { funlockfile(stream_); }
  StreamLock(const StreamLock&) = delete;
  StreamLock& operator=(const StreamLock&) = delete;

 private:
  FILE* stream_;
};

bool is_converted(FILE* stream) { return !utf8_is_marked(fileno(stream)); }

// The platform's fgets gives up, and what it has read with it, when a signal
// interrupts the wait for more. Here the wait goes on. Reads up to the line end or
// `room` bytes, or what is there on a descriptor that does not wait; returns their number,
// 0 at the end of the file and on an error.
size_t read_line(char* buffer, size_t room, FILE* stream) {
  size_t length = 0;
  while (length < room && (length == 0 || buffer[length - 1] != '\n')) {
    int byte = getc(stream);
    if (byte != EOF) {
      buffer[length++] = static_cast<char>(byte);
    } else if (feof(stream) != 0 || errno == EAGAIN) {
      break;
    } else if (errno == EINTR) {
      clearerr(stream);
    } else {
      return 0;
    }
  }
  return length;
}

char* read_marked_line(char* buffer, size_t size, FILE* stream) {
  size_t length = read_line(buffer, size - 1, stream);
  buffer[length] = '\0';
  return length > 0 || size == 1 ? buffer : nullptr;
}

// Puts `length` raw bytes back to be read again. Most often they still stand in the
// stream's buffer; where not, the C library makes room for them. False when it cannot.
bool push_back(const char* bytes, size_t length, FILE* stream) {
  while (length > 0) {
    if (ungetc(static_cast<unsigned char>(bytes[--length]), stream) == EOF) return false;
  }
  return true;
}

// A line as it stands on the stream, in an area of its own.
struct RawLine {
  c_unique_ptr<char> bytes;  // null when nothing was read
  size_t length = 0;
  bool cut = false;  // more of the line may follow
};

RawLine read_raw_line(size_t size, FILE* stream) {
  RawLine line;
  c_unique_ptr<char> area(static_cast<char*>(malloc(size)));
  if (area == nullptr) return line;
  line.length = read_line(area.get(), size - 1, stream);
  if (line.length == 0) return line;
  line.cut = area.get()[line.length - 1] != '\n' && feof(stream) == 0;
  line.bytes = std::move(area);
  return line;
}

// Converts the beginning of `line` that fits into `buffer`, less `line_end` bytes at its
// end, and leaves the rest on the stream. Never nothing of what fills the room, or a reader
// would never end.
char* convert_line(char* buffer, size_t size, const RawLine& line, size_t line_end, FILE* stream) {
  const char* raw = line.bytes.get();
  const size_t wanted = line.length - line_end;
  Utf8Progress done = utf8_mbs_part(buffer, size - 1, raw, wanted, line.cut);
  if (done.consumed == 0 && line.cut && line.length < size - 1) {
    // The rest of the character is not there yet.
    if (push_back(raw, line.length, stream)) errno = EAGAIN;
    return nullptr;
  }
  if (done.consumed == 0 && wanted > 0) done = utf8_mbs_part(buffer, size - 1, raw, 1, false);
  if (done.consumed == 0 && wanted > 0) {
    *buffer = '?';
    done = {1, 1};
  }
  buffer[done.written] = '\0';
  if (done.consumed == wanted) return buffer;
  return push_back(raw + done.consumed, line.length - done.consumed, stream) ? buffer : nullptr;
}

// Writes `text` converted, piece by piece. Returns the sum of the results of fputs, -1
// on failure.
int put_converted(const char* text, FILE* stream) {
  int sum = 0;
  char converted[kPieceSize + 1];
  for (size_t left = strlen(text); left > 0;) {
    size_t piece = left <= kPieceSize ? left : utf8_whole_length(text, kPieceSize);
    Utf8Progress done = ansi_mbs_part(converted, kPieceSize, text, piece);
    converted[done.written] = '\0';
    int result = done.consumed > 0 ? fputs(converted, stream) : EOF;
    if (result < 0) return -1;
    sum += result;
    text += done.consumed;
    left -= done.consumed;
  }
  return sum;
}

}  // namespace

FILE* utf8_fopen(const char* path, const char* mode) { return fopen(syscalls_utf8dec(path), mode); }

char* vxfgets(char* buffer, int size, FILE* stream) {
  if (size < 1) return nullptr;
  StreamLock lock(stream);
  auto room = static_cast<size_t>(size);
  if (room == 1 || !is_converted(stream)) return read_marked_line(buffer, room, stream);
  RawLine line = read_raw_line(room, stream);
  return line.length == 0 ? nullptr : convert_line(buffer, room, line, 0, stream);
}

char* vx_fgetmbts(char* buffer, int size, FILE* stream) {
  if (size < 1) return nullptr;
  StreamLock lock(stream);
  auto room = static_cast<size_t>(size);
  if (room == 1 || !is_converted(stream)) return read_marked_line(buffer, room, stream);
  RawLine line = read_raw_line(room, stream);
  if (line.length == 0) return nullptr;
  line.bytes.get()[line.length] = '\0';
  if (vx_mbstombts(buffer, line.bytes.get(), room) != 0) return buffer;
  push_back(line.bytes.get(), line.length, stream);
  errno = ERANGE;
  return nullptr;
}

char* vxgets(char* buffer) {
  StreamLock lock(stdin);
  if (is_converted(stdin)) {
    RawLine line = read_raw_line(kGetsSize, stdin);
    if (line.length == 0) return nullptr;
    size_t line_end = line.bytes.get()[line.length - 1] == '\n' ? 1 : 0;
    return convert_line(buffer, kGetsSize, line, line_end, stdin);
  }
  if (read_marked_line(buffer, kMarkedGetsSize, stdin) == nullptr) return nullptr;
  size_t length = strlen(buffer);
  if (length > 0 && buffer[length - 1] == '\n') buffer[length - 1] = '\0';
  return buffer;
}

int vxfputs(const char* text, FILE* stream) {
  if (text == nullptr) return -1;
  if (!is_converted(stream)) return fputs(text, stream);
  StreamLock lock(stream);
  return put_converted(text, stream);
}

int vxputs(const char* text) {
  if (text == nullptr) return -1;
  if (!is_converted(stdout)) return puts(text);
  StreamLock lock(stdout);
  int written = put_converted(text, stdout);
  int line_end = written < 0 ? -1 : fputs("\n", stdout);
  return line_end < 0 ? -1 : written + line_end;
}

int ansi_fputs(const char* text, FILE* stream) { return fputs(text, stream); }

int vxfclose(FILE* stream) {
  user_fp(stream);
  return fclose(stream);
}

int vxclose(int descriptor) {
  user_fd(descriptor);
  return close(descriptor);
}

int vxpclose(FILE* stream) {
  user_fp(stream);
  return pclose(stream);
}

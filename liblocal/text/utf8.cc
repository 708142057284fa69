#include "liblocal/text/utf8.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "liblocal/base/c_memory.h"
#include "liblocal/text/mbt.h"
#include "liblocal/text/utf8_codec.h"
#include "liblocal/text/utf8_convert.h"

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

// Reads a line, its line end included, of at most `size` - 1 bytes into `area`. A wait that a
// signal interrupts goes on; on a marked stream only within a line, so that the caller may act
// on the signal before any text is read. Returns the number of bytes; 0 with `area` as it was at
// the end of the file, and 0 on an error. A stream that does not wait gives what is there. The
// thread sanitizer does not know the lock of a stream, under which this is called.
__attribute__((no_sanitize("thread"))) size_t read_line(char* area, size_t size, FILE* stream,
                                                        bool marked) {
  const int saved_errno = errno;
  size_t length = 0;
  while (length + 1 < size) {
    errno = 0;
    const int byte = getc_unlocked(stream);
    if (byte != EOF) {
      area[length++] = static_cast<char>(byte);
      if (byte == '\n') break;
    } else if (feof_unlocked(stream) != 0 || errno == EAGAIN) {
      break;
    } else if (errno != EINTR || (marked && length == 0)) {
      return 0;
    } else {
      clearerr_unlocked(stream);
    }
  }
  if (errno == 0) errno = saved_errno;
  return length;
}

// Reads a line of a marked stream into `buffer` and terminates it.
char* read_marked(char* buffer, size_t size, bool with_line_end, FILE* stream) {
  size_t length = read_line(buffer, size, stream, true);
  if (length == 0) return nullptr;
  if (!with_line_end && buffer[length - 1] == '\n') --length;
  buffer[length] = '\0';
  return buffer;
}

// Puts `length` raw bytes back to be read again. Most often they are still in the stream's
// buffer; otherwise the C library allocates one. False when it cannot.
bool push_back(const char* bytes, size_t length, FILE* stream) {
  while (length > 0) {
    if (ungetc(static_cast<unsigned char>(bytes[--length]), stream) == EOF) return false;
  }
  return true;
}

// The bytes of a line in an area of their own, terminated. Without memory they are put back.
c_unique_ptr<char> copy_of(const char* bytes, size_t length, FILE* stream) {
  c_unique_ptr<char> copy(static_cast<char*>(malloc(length + 1)));
  if (copy == nullptr) {
    push_back(bytes, length, stream);
  } else {
    memcpy(copy.get(), bytes, length);
    copy.get()[length] = '\0';
  }
  return copy;
}

// Reads a line into `buffer` of `size` bytes and converts it, without its line end if that is
// not wanted. What does not fit is put back on the stream. At least one byte of a line is
// used, or a reader would never reach the end of the file.
char* read_converted(char* buffer, size_t size, bool with_line_end, FILE* stream) {
  const size_t length = read_line(buffer, size, stream, false);
  if (length == 0) return nullptr;
  const bool ends = buffer[length - 1] == '\n';
  const bool cut = !ends && feof_unlocked(stream) == 0;  // more of the line may follow
  const size_t wanted = length - (ends && !with_line_end ? 1 : 0);
  if (!cut && utf8_is_same(buffer, wanted)) {
    buffer[wanted] = '\0';
    return buffer;
  }
  const c_unique_ptr<char> raw = copy_of(buffer, length, stream);
  if (raw == nullptr) return nullptr;
  Utf8Progress done = utf8_mbs_part(buffer, size - 1, raw.get(), wanted, cut);
  if (done.consumed == 0 && cut && length < size - 1) {
    // The rest of the character is not there yet.
    if (push_back(raw.get(), length, stream)) errno = EAGAIN;
    return nullptr;
  }
  if (done.consumed == 0) done = utf8_mbs_part(buffer, size - 1, raw.get(), 1, false);
  if (done.consumed == 0) {
    *buffer = '?';
    done = {1, 1};
  }
  buffer[done.written] = '\0';
  if (done.consumed == wanted) return buffer;
  return push_back(raw.get() + done.consumed, length - done.consumed, stream) ? buffer : nullptr;
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
    if (result == EOF) return -1;
    sum += result;
    text += done.consumed;
    left -= done.consumed;
  }
  return sum;
}

}  // namespace

char* vxfgets(char* buffer, int size, FILE* stream) {
  if (size < 2) return fgets(buffer, size, stream);
  StreamLock lock(stream);
  const auto room = static_cast<size_t>(size);
  return is_converted(stream) ? read_converted(buffer, room, true, stream)
                              : read_marked(buffer, room, true, stream);
}

char* vx_fgetmbts(char* buffer, int size, FILE* stream) {
  if (size < 2) return fgets(buffer, size, stream);
  StreamLock lock(stream);
  const auto room = static_cast<size_t>(size);
  if (!is_converted(stream)) return read_marked(buffer, room, true, stream);
  const size_t length = read_line(buffer, room, stream, false);
  if (length == 0) return nullptr;
  const c_unique_ptr<char> raw = copy_of(buffer, length, stream);
  if (raw == nullptr) return nullptr;
  if (vx_mbstombts(buffer, raw.get(), room) != 0) return buffer;
  errno = ERANGE;
  return nullptr;
}

char* vxgets(char* buffer) {
  StreamLock lock(stdin);
  return is_converted(stdin) ? read_converted(buffer, kGetsSize, false, stdin)
                             : read_marked(buffer, kMarkedGetsSize, false, stdin);
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
  const int written = put_converted(text, stdout);
  return written < 0 || fputs("\n", stdout) == EOF ? -1 : written + 1;
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

#include "liblocal/text/utf8_convert.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "liblocal/base/liblvarp.h"
#include "liblocal/base/text_sizes.h"
#include "liblocal/base/vx_mutex.h"
#include "liblocal/text/codesets.h"
#include "liblocal/text/mbt.h"
#include "liblocal/text/utf8_codec.h"

namespace {

using std::string_view_literals::operator""sv;

constexpr size_t kLeastThreadBuffer = 6144;  // bytes of a buffer of utf8encode

// A conversion on its way, into `out_left` bytes at most. It adds no NUL.
struct Conversion {
  const char* in;
  size_t in_left;
  char* out;
  size_t out_left;
  bool more = false;    // text follows elsewhere
  bool broken = false;  // ended by a broken transparent byte
  bool full = false;    // ended by a character that takes one byte more than there is room for

  void skip(size_t count) {
    in += count;
    in_left -= count;
  }
  void put(char byte) {
    *out++ = byte;
    --out_left;
  }
  void copy(size_t count) {
    memcpy(out, in, count);
    out += count;
    out_left -= count;
    skip(count);
  }
};

// One direction's use of the platform's converter.
struct Direction {
  std::atomic<vx_mutex*> mutex;
  std::string_view no_mutex;
};

Direction to_utf8 = {nullptr,
                     "Operation could not be completed. Lock creation failed for UTF-8 "
                     "conversion. Try again.\n"sv};
Direction to_ansi = {nullptr,
                     "Operation could not be completed. Lock creation failed for ANSI "
                     "conversion. Try again.\n"sv};

// The lock of a direction; null, after SIGTERM, when it cannot be made.
vx_mutex* lock_of(Direction* direction) {
  vx_mutex* mutex = vx_mutex_made_once(&direction->mutex);
  if (mutex != nullptr) return mutex;
  std::string_view text = direction->no_mutex;
  [[maybe_unused]] ssize_t written = write(STDERR_FILENO, text.data(), text.size());
  raise(SIGTERM);
  return nullptr;
}

// One run of the platform's converter, from its initial state and back to it.
struct Run {
  size_t consumed;
  size_t written;
  size_t settled;  // of them, those before the return to the initial state
  bool held;       // a character was written by that return, or had no room there
  int error;       // what stopped it: E2BIG, EILSEQ or EINVAL, or 0
};

Run run_once(iconv_t descriptor, const Conversion& conversion, size_t length) {
  char* in = const_cast<char*>(conversion.in);  // the platform's signature; it only reads
  char* out = conversion.out;
  size_t in_left = length;
  size_t out_left = conversion.out_left;
  Run run = {};
  if (iconv(descriptor, &in, &in_left, &out, &out_left) == SIZE_MAX) run.error = errno;
  run.settled = conversion.out_left - out_left;
  if (iconv(descriptor, nullptr, nullptr, &out, &out_left) == SIZE_MAX) {
    run.error = E2BIG;
    run.held = true;
    iconv(descriptor, nullptr, nullptr, nullptr, nullptr);
  }
  run.consumed = length - in_left;
  run.written = conversion.out_left - out_left;
  run.held = run.held || run.written > run.settled;
  return run;
}

// Converts `length` bytes, behind which there is `more` of the text, up to what stops the
// converter. Returns that error.
//
// Some converters hold a character back, because the next one may combine with it. When the held
// character does not fit, or the next one is not there yet, the run must end before it. So the
// run is repeated with one byte less each time, until it writes no more than the long run had
// written before it held the character.
int run_converter(iconv_t descriptor, Conversion* conversion, size_t length, bool more) {
  Run run = run_once(descriptor, *conversion, length);
  int error = run.error;
  if (run.held && (error == E2BIG || (error == 0 && more))) {
    const size_t settled = run.settled;
    for (size_t use = run.consumed; run.error != 0 || run.written > settled;) {
      run = run_once(descriptor, *conversion, --use);
    }
    error = E2BIG;
  }
  conversion->skip(run.consumed);
  conversion->out += run.written;
  conversion->out_left -= run.written;
  return error;
}

// run_converter under the lock of the direction; ENOLCK without one.
int run_locked(Direction* direction, iconv_t descriptor, Conversion* conversion, size_t length,
               bool more) {
  vx_mutex* mutex = lock_of(direction);
  if (mutex == nullptr) return ENOLCK;
  while (vx_mutex_lock(mutex) != 0) sched_yield();
  int error = run_converter(descriptor, conversion, length, more);
  vx_mutex_unlock(mutex);
  return error;
}

// The bytes that are the same character in every codeset that a locale may have. Shift_JIS has
// signs of its own for '\\' and '~', TCVN has letters in the place of controls.
constexpr auto kPlain = [] {
  std::array<bool, 256> plain = {};
  for (uint8_t byte = ' '; byte <= '}'; ++byte) plain[byte] = byte != '\\';
  for (uint8_t byte = '\t'; byte <= '\r'; ++byte) plain[byte] = true;
  return plain;
}();

bool is_plain(const char* text, size_t length) {
  return std::all_of(text, text + length, [](char c) { return kPlain[static_cast<uint8_t>(c)]; });
}

bool is_ascii(char byte) { return (byte & 0x80) == 0; }

// The number of bytes of ASCII that `text`, of `length` bytes, begins with. Most of what a
// program prints is ASCII, so eight bytes are looked at together.
size_t ascii_length(const char* text, size_t length) {
  size_t count = 0;
  for (uint64_t word = 0; length - count >= sizeof word; count += sizeof word) {
    memcpy(&word, text + count, sizeof word);
    if ((word & 0x8080808080808080) != 0) break;
  }
  while (count < length && is_ascii(text[count])) ++count;
  return count;
}

// Whether the locale's codeset is another one, as far as is known.
bool needs_conversion() { return Needs_conversion.load(std::memory_order_relaxed) != 0; }

// The longest beginning of `text`, of `length` bytes, that takes at most `room` bytes and does
// not end within a character of UTF-8. Other bytes are characters of one byte.
size_t fitting_length(const char* text, size_t length, size_t room) {
  if (length <= room) return length;
  for (size_t back = 1; back <= std::min<size_t>(room, kUtf8MaxLength); ++back) {
    const size_t start = room - back;
    if (utf8_mblen(text + start, length - start) > static_cast<int>(back)) return start;
  }
  return room;
}

// From the locale's codeset to UTF-8, where that is the same.
void copy_in(Conversion* conversion) {
  const size_t count = fitting_length(conversion->in, conversion->in_left, conversion->out_left);
  conversion->copy(conversion->more ? utf8_whole_length(conversion->in, count) : count);
}

// Whether the character that has no room in a conversion to UTF-8 takes one byte more.
bool takes_one_more(iconv_t descriptor, const Conversion& stopped) {
  char next[kUtf8MaxLength];
  if (stopped.out_left >= sizeof next) return false;
  Conversion rest = {
      .in = stopped.in, .in_left = stopped.in_left, .out = next, .out_left = stopped.out_left + 1};
  run_locked(&to_utf8, descriptor, &rest, rest.in_left, false);
  return rest.out_left == 0;
}

// From the locale's codeset to UTF-8. Text that needs no converter opens none.
void convert_in(Conversion* conversion) {
  if (!needs_conversion()) return copy_in(conversion);
  const size_t length = conversion->in_left;
  if (!conversion->more && length <= conversion->out_left && is_plain(conversion->in, length)) {
    return conversion->copy(length);
  }
  iconv_t descriptor = get_utf8_codeset();
  if (!needs_conversion()) return copy_in(conversion);
  while (conversion->in_left > 0 && conversion->out_left > 0) {
    const int error =
        run_locked(&to_utf8, descriptor, conversion, conversion->in_left, conversion->more);
    if (error == 0 || error == ENOLCK || (error == EINVAL && conversion->more)) return;
    if (error == E2BIG || conversion->out_left == 0) {
      conversion->full = error != E2BIG || takes_one_more(descriptor, *conversion);
      return;
    }
    conversion->put('?');
    conversion->skip(1);
  }
}

// The number of bytes before the first transparent byte of `text`, `length` bytes.
size_t run_before_mbt(const char* text, size_t length) {
  for (size_t at = 0;; ++at) {
    const void* lead = memchr(text + at, kMbtLead, length - at);
    if (lead == nullptr) return length;
    at = static_cast<size_t>(static_cast<const char*>(lead) - text);
    if (mbt_byte(text + at, length - at) != kMbtNone) return at;
  }
}

// Passes the character at which the converter stopped with `error`: a byte that is no UTF-8 is
// copied, and '?' replaces a character that the codeset lacks. False when there is no room.
bool pass_stopped(Conversion* conversion, iconv_t descriptor, int error) {
  if (conversion->out_left == 0 || error == ENOLCK) return false;
  const int length = utf8_mblen(conversion->in, conversion->in_left);
  if (length == -1) {
    conversion->copy(1);
    return true;
  }
  char made[kUtf8MaxLength];
  Conversion alone = {.in = conversion->in,
                      .in_left = static_cast<size_t>(length),
                      .out = made,
                      .out_left = sizeof made};
  // Some converters ask for room before they look whether they have the character.
  if (error == E2BIG && run_locked(&to_ansi, descriptor, &alone, alone.in_left, false) == 0) {
    conversion->full = sizeof made - alone.out_left == conversion->out_left + 1;
    return false;
  }
  conversion->put('?');
  conversion->skip(static_cast<size_t>(length));
  return true;
}

// Puts `length` bytes, of which none are a transparent byte, through the converter. False
// when there is no room.
//
// The converter decodes much of a run before it stops at a character that the codeset lacks.
// After such a character the runs are short, and each is twice as long as the last, so that a
// text full of them takes linear time.
bool convert_run(Conversion* conversion, iconv_t descriptor, size_t length) {
  const char* end = conversion->in + length;
  for (size_t most = length; conversion->in < end;) {
    const char* at = conversion->in;
    const auto left = static_cast<size_t>(end - at);
    const size_t run = left <= most ? left : utf8_whole_length(at, most);
    const int error = run_locked(&to_ansi, descriptor, conversion, run, run < left);
    most *= 2;
    if (error == 0 || (error == E2BIG && conversion->in > at)) continue;
    if (!pass_stopped(conversion, descriptor, error)) return false;
    most = kUtf8MaxLength;
  }
  return true;
}

// Copies `length` bytes that are the same in the locale's codeset, and of which none are a
// transparent byte. False when there is no room.
bool copy_run(Conversion* conversion, size_t length) {
  const size_t count = fitting_length(conversion->in, length, conversion->out_left);
  conversion->copy(count);
  if (count == length) return true;
  const size_t room = conversion->out_left;
  conversion->full =
      room > 0 && utf8_mblen(conversion->in, conversion->in_left) == static_cast<int>(room) + 1;
  return false;
}

// From UTF-8 to the locale's codeset: the next bytes that are treated alike. False when
// the conversion ends there.
bool step_out(Conversion* conversion) {
  const char* in = conversion->in;
  const size_t left = conversion->in_left;
  if (needs_conversion()) {
    const size_t ascii = ascii_length(in, left);
    if (ascii > 0) return copy_run(conversion, ascii);
  }
  const int byte = mbt_byte(in, left);
  if (byte == kMbtNone) {
    iconv_t descriptor = needs_conversion() ? get_ansi_codeset() : nullptr;
    if (!needs_conversion()) return copy_run(conversion, run_before_mbt(in, left));
    const char* end = Ansi_keeps_ascii ? in + left : std::find_if(in, in + left, is_ascii);
    return convert_run(conversion, descriptor, run_before_mbt(in, static_cast<size_t>(end - in)));
  }
  if (byte == kMbtBroken) {
    conversion->broken = true;
    conversion->skip(left);
    return false;
  }
  conversion->put(static_cast<char>(byte));
  conversion->skip(kMbtLength);
  return true;
}

void convert_out(Conversion* conversion) {
  while (conversion->in_left > 0 && conversion->out_left > 0 && step_out(conversion)) {
  }
}

// The number of bytes at the beginning of `text` that need no converter.
size_t same_length(const char* text) {
  if (needs_conversion()) return ascii_length(text, strlen(text));
  return static_cast<size_t>(strchrnul(text, kMbtLead) - text);
}

using Convert = void (*)(Conversion* conversion);

// Converts with `errno` as it was.
void run(Convert convert, Conversion* conversion) {
  const int saved_errno = errno;
  convert(conversion);
  errno = saved_errno;
}

// Converts a text whose first `same` bytes need no converter; most texts need none at all.
size_t convert_whole(Convert convert, char* output, const char* input, size_t size, size_t same) {
  if (output == nullptr || size == 0) return 0;
  if (input != nullptr && same < size && input[same] == '\0') {
    memcpy(output, input, same + 1);
    return same;
  }
  *output = '\0';
  if (input == nullptr) return 0;
  Conversion conversion = {
      .in = input, .in_left = strlen(input), .out = output, .out_left = size - 1};
  run(convert, &conversion);
  *conversion.out = '\0';
  if (conversion.broken) return 0;
  return conversion.full ? size : size - 1 - conversion.out_left;
}

}  // namespace

size_t utf8_mbs(char* output, const char* input, size_t size) {
  return convert_whole(convert_in, output, input, size, 0);
}

size_t ansi_mbs(char* output, const char* input, size_t size) {
  const size_t same = input == nullptr ? 0 : same_length(input);
  return convert_whole(convert_out, output, input, size, same);
}

bool utf8_is_same(const char* text, size_t length) {
  return !needs_conversion() || is_plain(text, length);
}

bool ansi_is_same(const char* text, size_t length) {
  if (memchr(text, '\0', length) != nullptr) return false;
  return needs_conversion() ? ascii_length(text, length) == length
                            : memchr(text, kMbtLead, length) == nullptr;
}

Utf8Progress utf8_mbs_part(char* output, size_t room, const char* input, size_t length, bool more) {
  Conversion conversion = {
      .in = input, .in_left = length, .out = output, .out_left = room, .more = more};
  run(convert_in, &conversion);
  return {length - conversion.in_left, room - conversion.out_left};
}

Utf8Progress ansi_mbs_part(char* output, size_t room, const char* input, size_t length) {
  Conversion conversion = {.in = input, .in_left = length, .out = output, .out_left = room};
  run(convert_out, &conversion);
  return {length - conversion.in_left, room - conversion.out_left};
}

int vx_utf8tombts(char* output, const char* input, size_t size) {
  char area[kPathSize];
  if (ansi_mbs(area, input, sizeof area) == 0) return 0;
  return vx_mbstombts(output, area, size);
}

int ansi_mbslen(const char* text) {
  if (text == nullptr) return 0;
  size_t left = strlen(text);
  int count = 0;
  for (; left > 0; ++count) {
    int length = mblen(text, left);
    if (length == -1) return -1;
    text += length;
    left -= static_cast<size_t>(length);
  }
  return count;
}

namespace {

using Converter = size_t (*)(char* output, const char* input, size_t size);

char* convert_into(vx_text_buffer* buffer, Converter convert, const char* text, size_t size) {
  if (buffer->size < size || buffer->text == nullptr) {
    size = std::max(size, kLeastThreadBuffer);
    auto* grown = static_cast<char*>(malloc(size));
    if (grown == nullptr) return nullptr;
    free(buffer->text);
    buffer->text = grown;
    buffer->size = size;
  }
  convert(buffer->text, text, buffer->size);
  return buffer->text;
}

}  // namespace

char* utf8encode(const char* text, size_t size) {
  return convert_into(&get_liblocal_t_varp()->utf8_encoded, utf8_mbs, text, size);
}

char* utf8decode(const char* text, size_t size) {
  return convert_into(&get_liblocal_t_varp()->utf8_decoded, ansi_mbs, text, size);
}

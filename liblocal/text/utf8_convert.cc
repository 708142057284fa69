#include "liblocal/text/utf8_convert.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "liblocal/text/codesets.h"
#include "liblocal/text/mbt.h"
#include "liblocal/text/utf8_codec.h"
#include "liblocal/threads/liblvarp.h"
#include "liblocal/threads/text_sizes.h"
#include "liblocal/threads/vx_mutex.h"

namespace {

using std::string_view_literals::operator""sv;

constexpr size_t kLeastThreadBuffer = 6144;  // bytes of a buffer of utf8encode
constexpr size_t kShortRun = 16;             // bytes, behind a character that a codeset lacks

// A conversion on its way. It goes on while there is input and more than `spare` bytes
// are free: 1 where a NUL is to follow, else 0. The last character may use the spare
// byte; finish() takes it back then.
struct Conversion {
  const char* in;
  size_t in_left;
  char* out;
  size_t out_left;
  size_t spare;
  bool more;             // of the text follows elsewhere
  char* last = nullptr;  // where the last character of several bytes was put
  bool broken = false;   // ended by a broken transparent byte

  bool goes_on() const { return in_left > 0 && out_left > spare; }
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

// One run of the platform's converter over `length` bytes, from its initial state and
// back to it, into `room` bytes. Returns 0 or the error that stopped it, E2BIG, EILSEQ or
// EINVAL, with the conversion moved on to there.
//
// Some converters hold a character back for what may combine with it. Where neither it
// nor what follows fits, or the text goes on elsewhere, that character is not taken: the
// run starts over, shorter and shorter until it ends before that character, however many
// bytes that was composed of.
int run_converter(iconv_t descriptor, Conversion* conversion, size_t length, size_t room) {
  size_t settled = 0;  // bytes that came out before what was held back
  for (size_t use = length;;) {
    const bool whole = use == length;
    char* in = const_cast<char*>(conversion->in);  // the platform's signature; it only reads
    size_t in_left = use;
    char* out = conversion->out;
    size_t out_left = room;
    const int error = iconv(descriptor, &in, &in_left, &out, &out_left) == SIZE_MAX ? errno : 0;
    if (whole) settled = room - out_left;
    const bool all_out = iconv(descriptor, nullptr, nullptr, &out, &out_left) != SIZE_MAX;
    const bool held = room - out_left > settled;
    const bool stops_short = error == E2BIG || (error == 0 && conversion->more);
    const bool ends_well = whole ? !(held && stops_short) : !held && error == 0;
    if (all_out && ends_well) {
      conversion->skip(use - in_left);
      conversion->out_left -= room - out_left;
      conversion->out = out;
      return whole ? error : E2BIG;
    }
    iconv(descriptor, nullptr, nullptr, nullptr, nullptr);
    if (whole) use -= in_left;
    if (use == 0) return E2BIG;
    --use;
  }
}

// run_converter under the lock of the direction.
int run_locked(Direction* direction, iconv_t descriptor, Conversion* conversion, size_t length,
               size_t room) {
  vx_mutex* mutex = lock_of(direction);
  if (mutex == nullptr) return E2BIG;  // ends the text where it stands
  while (vx_mutex_lock(mutex) != 0) sched_yield();
  int error = run_converter(descriptor, conversion, length, room);
  vx_mutex_unlock(mutex);
  return error;
}

bool is_ascii(char byte) { return (byte & 0x80) == 0; }

// ASCII that may mean something else elsewhere: Shift_JIS has signs of its own for '\\' and
// '~', TCVN letters in the place of controls, ISO 2022 shifts there.
bool is_doubtful(char byte) {
  const auto code = static_cast<uint8_t>(byte);
  return byte == '\\' || byte == '~' || code < '\t' || (code > '\r' && code < ' ');
}

// The same character in every codeset that a locale may have.
bool is_plain(char byte) { return is_ascii(byte) && !is_doubtful(byte); }

// Of UTF-8, no reason to look closer: neither doubtful nor the first byte of a transparent
// byte or of a character that combines.
bool is_usual(char byte) {
  const auto code = static_cast<uint8_t>(byte);
  return !is_doubtful(byte) && (code < 0xCA || code > 0xCD) && code != 0xE3 && code != kMbtLead;
}

// The number of bytes of that kind that `text`, of `length` bytes, begins with. The
// compiler makes vector instructions of a block.
template <bool (*is_kind)(char)>
size_t run_of(const char* text, size_t length) {
  constexpr size_t kBlock = 16;
  size_t count = 0;
  for (; count + kBlock <= length; count += kBlock) {
    uint8_t others = 0;
    for (size_t i = 0; i < kBlock; ++i) others |= static_cast<uint8_t>(!is_kind(text[count + i]));
    if (others != 0) break;
  }
  while (count < length && is_kind(text[count])) ++count;
  return count;
}

// Whether the locale's codeset is another one, as far as is known.
bool needs_conversion() { return Needs_conversion.load(std::memory_order_relaxed) != 0; }

// From the locale's codeset to UTF-8, where that is the same.
void copy_in(Conversion* conversion) {
  size_t count = std::min(conversion->in_left, conversion->out_left - conversion->spare);
  if (count < conversion->in_left || conversion->more) {
    count = utf8_whole_length(conversion->in, count);
  }
  conversion->copy(count);
}

// From the locale's codeset to UTF-8. Text that needs no converter opens none.
void convert_in(Conversion* conversion) {
  if (!conversion->goes_on()) return;
  if (!needs_conversion()) return copy_in(conversion);
  size_t length = conversion->in_left;
  if (!conversion->more && length <= conversion->out_left - conversion->spare &&
      run_of<is_plain>(conversion->in, length) == length) {
    return conversion->copy(length);
  }
  iconv_t descriptor = get_utf8_codeset();
  if (!needs_conversion()) return copy_in(conversion);
  while (conversion->goes_on()) {
    int error =
        run_locked(&to_utf8, descriptor, conversion, conversion->in_left, conversion->out_left);
    if (error == E2BIG || (error == EINVAL && conversion->more)) return;
    if (error != 0 && conversion->out_left > 0) {
      conversion->put('?');
      conversion->skip(1);
    }
  }
}

// Whether the character at `at` may be written as one with the character before it.
bool combines(const char* at, int length) {
  wchar_t value = 0;
  utf8_mbtowc(&value, at, static_cast<size_t>(length));
  return (value >= 0x2B0 && value <= 0x36F) || value == 0x3099 || value == 0x309A;
}

size_t character_length(const char* text, size_t length) {
  return static_cast<size_t>(std::max(1, utf8_mblen(text, length)));
}

// The number of bytes, the first character's `first` among them, that may go through
// the converter in one run with the same result as one by one. What is not UTF-8 may be
// among them: there the converter stops.
size_t run_of_characters(const char* text, size_t length, size_t first) {
  size_t count = first;
  for (;;) {
    count += run_of<is_usual>(text + count, length - count);
    if (count == length || mbt_byte(text + count, length - count) != kMbtNone) return count;
    int next = utf8_mblen(text + count, length - count);
    if (next <= 1 || combines(text + count, next)) return count;
    count += static_cast<size_t>(next);
  }
}

// Writes the character that the converter stopped at. False when it does not fit.
bool convert_one(Conversion* conversion, iconv_t descriptor, int error) {
  size_t length = character_length(conversion->in, conversion->in_left);
  if (error == E2BIG) {
    conversion->last = conversion->out;
    error = run_locked(&to_ansi, descriptor, conversion, length, conversion->out_left);
    if (error == 0) return true;
    if (error == E2BIG) return false;
  }
  if (length == 1) {  // not UTF-8
    conversion->copy(1);
    return true;
  }
  conversion->put('?');
  conversion->skip(length);
  return true;
}

// Converts the characters from here on, of which the first one takes `first` bytes.
// False when one does not fit.
//
// The converter looks at much of a run before it stops at a character that it lacks. So
// behind one the runs are short, and grow for as long as none is missing.
bool convert_characters(Conversion* conversion, iconv_t descriptor, size_t first) {
  size_t left = run_of_characters(conversion->in, conversion->in_left, first);
  const char* end = conversion->in + left;
  for (size_t most = left; left > 0 && conversion->goes_on();
       left = static_cast<size_t>(end - conversion->in)) {
    const size_t run = left <= most ? left : utf8_whole_length(conversion->in, most);
    int error =
        run_locked(&to_ansi, descriptor, conversion, run, conversion->out_left - conversion->spare);
    most *= 2;
    if (error == 0 || !conversion->goes_on()) continue;
    if (!convert_one(conversion, descriptor, error)) return false;
    most = kShortRun;
  }
  return true;
}

bool copy_character(Conversion* conversion, size_t length) {
  if (length > conversion->out_left) return false;
  conversion->last = conversion->out;
  conversion->copy(length);
  return true;
}

// The number of bytes from here on that are the same in a UTF-8 locale, and fit.
size_t run_of_utf8(const Conversion& conversion) {
  size_t free = conversion.out_left - conversion.spare;
  size_t length = std::min(conversion.in_left, free);
  const void* lead = memchr(conversion.in, kMbtLead, length);
  if (lead != nullptr) return static_cast<size_t>(static_cast<const char*>(lead) - conversion.in);
  return length < conversion.in_left ? utf8_whole_length(conversion.in, length) : length;
}

// From UTF-8 to the locale's codeset: the next bytes that are treated alike. False when
// the conversion ends here.
bool step_out(Conversion* conversion) {
  size_t free = conversion->out_left - conversion->spare;
  size_t same = needs_conversion()
                    ? run_of<is_ascii>(conversion->in, std::min(conversion->in_left, free))
                    : run_of_utf8(*conversion);
  if (same > 0) {
    conversion->copy(same);
    return true;
  }
  int byte = mbt_byte(conversion->in, conversion->in_left);
  if (byte == kMbtBroken) {
    conversion->broken = true;
    conversion->skip(conversion->in_left);
    return false;
  }
  if (byte != kMbtNone) {
    conversion->put(static_cast<char>(byte));
    conversion->skip(kMbtLength);
    return true;
  }
  size_t length = character_length(conversion->in, conversion->in_left);
  if (length == 1) {  // not UTF-8
    conversion->copy(1);
    return true;
  }
  iconv_t descriptor = get_ansi_codeset();
  return needs_conversion() ? convert_characters(conversion, descriptor, length)
                            : copy_character(conversion, length);
}

void convert_out(Conversion* conversion) {
  while (conversion->goes_on() && step_out(conversion)) {
  }
}

// Terminates the text of a conversion that began with `size` bytes at `output`.
size_t finish(const Conversion& conversion, char* output, size_t size) {
  if (conversion.out_left > 0) {
    *conversion.out = '\0';
    return conversion.broken ? 0 : size - conversion.out_left;
  }
  if (conversion.last != nullptr) *conversion.last = '\0';
  output[size - 1] = '\0';
  return size;
}

}  // namespace

size_t utf8_mbs(char* output, const char* input, size_t size) {
  if (output == nullptr || size == 0) return 0;
  *output = '\0';
  if (input == nullptr || *input == '\0') return 0;
  int saved_errno = errno;
  Conversion conversion = {input, strlen(input), output, size, 1, false};
  convert_in(&conversion);
  errno = saved_errno;
  if (conversion.out_left == 0) {
    conversion.last = output + size - 1;
    while (conversion.last > output && (*conversion.last & 0xC0) == 0x80) --conversion.last;
  }
  return finish(conversion, output, size);
}

size_t ansi_mbs(char* output, const char* input, size_t size) {
  if (output == nullptr || size == 0) return 0;
  *output = '\0';
  if (input == nullptr) return 0;
  if (!needs_conversion()) {
    // Most texts hold nothing that begins as a transparent byte does, and fit.
    const auto same = static_cast<size_t>(strchrnul(input, kMbtLead) - input);
    if (same < size && input[same] == '\0') {
      memcpy(output, input, same + 1);
      return same;
    }
  }
  int saved_errno = errno;
  Conversion conversion = {input, strlen(input), output, size, 1, false};
  convert_out(&conversion);
  errno = saved_errno;
  return finish(conversion, output, size);
}

bool utf8_is_same(const char* text, size_t length) {
  return !needs_conversion() || run_of<is_plain>(text, length) == length;
}

Utf8Progress utf8_mbs_part(char* output, size_t room, const char* input, size_t length, bool more) {
  int saved_errno = errno;
  Conversion conversion = {input, length, output, room, 0, more};
  convert_in(&conversion);
  errno = saved_errno;
  return {length - conversion.in_left, room - conversion.out_left};
}

Utf8Progress ansi_mbs_part(char* output, size_t room, const char* input, size_t length) {
  int saved_errno = errno;
  Conversion conversion = {input, length, output, room, 0, false};
  convert_out(&conversion);
  errno = saved_errno;
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
  [[maybe_unused]] int stateful = mblen(nullptr, 0);  // starts over
  for (; left > 0; ++count) {
    int length = mblen(text, left);
    if (length < 0) return -1;
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
    if (grown == nullptr) {
      errno = ENOMEM;
      return nullptr;
    }
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

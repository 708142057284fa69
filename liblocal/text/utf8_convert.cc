#include "liblocal/text/utf8_convert.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
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
constexpr size_t kShortRun = 16;             // bytes, behind a character that a codeset lacks

// A conversion on its way, into `out_left` bytes at most. It adds no NUL.
struct Conversion {
  const char* in;
  size_t in_left;
  char* out;
  size_t out_left;
  bool more = false;    // of the text follows elsewhere
  bool broken = false;  // ended by a broken transparent byte

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
  size_t settled;  // of them, those before the way back
  bool held;       // a character came out on the way back, or had no room there
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

// Converts `length` bytes, which are not the last of the text where `more` says so, up to
// what stops the converter. Returns the error of that.
//
// Some converters hold a character back for what may combine with it. Where it does not
// fit, or what follows is not there yet, it is not taken: of shorter and shorter runs the
// first one ends before it that makes of its whole no more than the long one had settled.
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

// run_converter under the lock of the direction.
int run_locked(Direction* direction, iconv_t descriptor, Conversion* conversion, size_t length,
               bool more) {
  vx_mutex* mutex = lock_of(direction);
  if (mutex == nullptr) return E2BIG;  // ends the text where it stands
  while (vx_mutex_lock(mutex) != 0) sched_yield();
  int error = run_converter(descriptor, conversion, length, more);
  vx_mutex_unlock(mutex);
  return error;
}

// Kinds of bytes, of one byte or of a vector of them. Below 0: beyond ASCII.
constexpr auto is_ascii = [](auto byte) { return byte >= 0; };
constexpr auto is_ascii_but_nul = [](auto byte) { return byte > 0; };
constexpr auto is_no_mbt_or_nul = [](auto byte) {
  return (byte != static_cast<int8_t>(kMbtLead)) & (byte != 0);
};
constexpr auto is_beyond_ascii = [](auto byte) { return byte < 0; };

// The same character in every codeset that a locale may have: Shift_JIS has signs of its own
// for '\\' and '~', TCVN letters in the place of controls, ISO 2022 shifts there.
constexpr auto is_plain = [](auto byte) {
  return ((byte >= ' ') & (byte != '\\') & (byte != '~')) | ((byte >= '\t') & (byte <= '\r'));
};

using Block [[gnu::vector_size(16)]] = int8_t;

template <auto is_kind>
bool is_block_of(const char* text) {
  Block block;
  memcpy(&block, text, sizeof block);
  const auto halves = std::bit_cast<std::array<uint64_t, 2>>(is_kind(block));
  return (halves[0] & halves[1]) == UINT64_MAX;
}

// The number of bytes of that kind that `text`, of `length` bytes, begins with.
template <auto is_kind>
size_t run_of(const char* text, size_t length) {
  constexpr size_t kBlock = sizeof(Block);
  size_t count = 0;
  while (count + kBlock <= length && is_block_of<is_kind>(text + count)) count += kBlock;
  // The end is looked at as a block, too, some of it a second time.
  if (length >= kBlock && count + kBlock > length && count < length &&
      is_block_of<is_kind>(text + length - kBlock)) {
    return length;
  }
  while (count < length && is_kind(static_cast<int8_t>(text[count]))) ++count;
  return count;
}

// Whether the locale's codeset is another one, as far as is known.
bool needs_conversion() { return Needs_conversion.load(std::memory_order_relaxed) != 0; }

// From the locale's codeset to UTF-8, where that is the same.
void copy_in(Conversion* conversion) {
  size_t count = std::min(conversion->in_left, conversion->out_left);
  if (count < conversion->in_left || conversion->more) {
    count = utf8_whole_length(conversion->in, count);
  }
  conversion->copy(count);
}

// From the locale's codeset to UTF-8. Text that needs no converter opens none.
void convert_in(Conversion* conversion) {
  if (!needs_conversion()) return copy_in(conversion);
  size_t length = conversion->in_left;
  if (!conversion->more && length <= conversion->out_left &&
      run_of<is_plain>(conversion->in, length) == length) {
    return conversion->copy(length);
  }
  iconv_t descriptor = get_utf8_codeset();
  if (!needs_conversion()) return copy_in(conversion);
  while (conversion->in_left > 0) {
    int error = run_locked(&to_utf8, descriptor, conversion, conversion->in_left, conversion->more);
    if (error == 0 || error == E2BIG || (error == EINVAL && conversion->more)) return;
    if (conversion->out_left == 0) return;
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

// Puts `length` bytes, of which none are a transparent byte, through the converter. False
// when the output is full.
//
// The converter looks at much of a run before it stops at a character that it lacks. So
// behind one the runs are short, and grow for as long as none is missing.
bool convert_run(Conversion* conversion, iconv_t descriptor, size_t length) {
  const char* end = conversion->in + length;
  for (size_t most = length; conversion->in < end;) {
    const char* at = conversion->in;
    const auto left = static_cast<size_t>(end - at);
    const size_t run = left <= most ? left : utf8_whole_length(at, most);
    const int error = run_locked(&to_ansi, descriptor, conversion, run, run < left);
    most *= 2;
    if (error == 0 || (error == E2BIG && conversion->in > at)) continue;
    if (error == E2BIG || conversion->out_left == 0) return false;
    const int character = utf8_mblen(conversion->in, conversion->in_left);
    if (character < 0) {  // not UTF-8
      conversion->copy(1);
    } else {
      conversion->put('?');
      conversion->skip(static_cast<size_t>(character));
    }
    most = kShortRun;
  }
  return true;
}

// Copies what is the same in the locale's codeset: bytes that no transparent byte is among.
// False when the output is full.
bool copy_run(Conversion* conversion, size_t length) {
  const bool fits = length <= conversion->out_left;
  conversion->copy(fits ? length : utf8_whole_length(conversion->in, conversion->out_left));
  return fits;
}

// From UTF-8 to the locale's codeset: the next bytes that are treated alike. False when
// the conversion ends there.
bool step_out(Conversion* conversion) {
  const char* in = conversion->in;
  const size_t left = conversion->in_left;
  if (needs_conversion()) {
    const size_t ascii = run_of<is_ascii>(in, left);
    if (ascii > 0) return copy_run(conversion, ascii);
  }
  const int byte = mbt_byte(in, left);
  if (byte == kMbtNone) {
    iconv_t descriptor = needs_conversion() ? get_ansi_codeset() : nullptr;
    if (!needs_conversion()) return copy_run(conversion, run_before_mbt(in, left));
    const size_t run = Ansi_keeps_ascii ? left : run_of<is_beyond_ascii>(in, left);
    return convert_run(conversion, descriptor, run_before_mbt(in, run));
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
  if (needs_conversion()) return run_of<is_ascii>(text, strlen(text));
  return static_cast<size_t>(strchrnul(text, kMbtLead) - text);
}

// Whether the character that a conversion stopped at would fill its area to the last byte,
// which is the NUL's.
bool fills(void (*convert)(Conversion*), const Conversion& cut) {
  char next[kUtf8MaxLength];
  if (cut.in_left == 0 || cut.out_left >= sizeof next) return false;
  Conversion rest = {
      .in = cut.in, .in_left = cut.in_left, .out = next, .out_left = cut.out_left + 1};
  convert(&rest);
  return rest.out_left == 0;
}

}  // namespace

size_t utf8_mbs(char* output, const char* input, size_t size) {
  if (output == nullptr || size == 0) return 0;
  *output = '\0';
  if (input == nullptr) return 0;
  int saved_errno = errno;
  Conversion conversion = {
      .in = input, .in_left = strlen(input), .out = output, .out_left = size - 1};
  convert_in(&conversion);
  *conversion.out = '\0';
  const bool full = needs_conversion() && fills(convert_in, conversion);
  errno = saved_errno;
  return full ? size : size - 1 - conversion.out_left;
}

size_t ansi_mbs(char* output, const char* input, size_t size) {
  if (output == nullptr || size == 0) return 0;
  *output = '\0';
  if (input == nullptr) return 0;
  const size_t same = same_length(input);
  if (same < size && input[same] == '\0') {  // as most texts are
    memcpy(output, input, same + 1);
    return same;
  }
  int saved_errno = errno;
  Conversion conversion = {
      .in = input, .in_left = strlen(input), .out = output, .out_left = size - 1};
  convert_out(&conversion);
  *conversion.out = '\0';
  // The last byte alone takes no character.
  const bool full = conversion.out_left > 0 && fills(convert_out, conversion);
  errno = saved_errno;
  if (conversion.broken) return 0;
  return full ? size : size - 1 - conversion.out_left;
}

bool utf8_is_same(const char* text, size_t length) {
  return !needs_conversion() || run_of<is_plain>(text, length) == length;
}

bool ansi_is_same(const char* text, size_t length) {
  return length == (needs_conversion() ? run_of<is_ascii_but_nul>(text, length)
                                       : run_of<is_no_mbt_or_nul>(text, length));
}

Utf8Progress utf8_mbs_part(char* output, size_t room, const char* input, size_t length, bool more) {
  int saved_errno = errno;
  Conversion conversion = {
      .in = input, .in_left = length, .out = output, .out_left = room, .more = more};
  convert_in(&conversion);
  errno = saved_errno;
  return {length - conversion.in_left, room - conversion.out_left};
}

Utf8Progress ansi_mbs_part(char* output, size_t room, const char* input, size_t length) {
  int saved_errno = errno;
  Conversion conversion = {.in = input, .in_left = length, .out = output, .out_left = room};
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

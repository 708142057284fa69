#include "liblocal/text/codesets.h"

#include <langinfo.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <numeric>
#include <string_view>

std::atomic<int> Needs_conversion = 1;
std::atomic<bool> Ansi_keeps_ascii = false;

namespace {

using std::string_view_literals::operator""sv;

constexpr auto kNoAnsi =
    "Function 'iconv_open' failed for UTF-8 to ANSI conversion. The function may be unable to "
    "determine the current locale. Verify appropriate values in environment variables "
    "LC_MESSAGES, LC_ALL and LANG.\n"sv;
constexpr auto kNoUtf8 =
    "Function 'iconv_open' failed for ANSI to UTF-8 conversion. The function may be unable to "
    "determine the current locale. Verify appropriate values in environment variables "
    "LC_MESSAGES, LC_ALL and LANG.\n"sv;
static_assert(kNoAnsi.size() == 200 && kNoUtf8.size() == 200);

iconv_t not_opened() { return reinterpret_cast<iconv_t>(intptr_t{-1}); }

std::atomic<iconv_t> ansi_descriptor = not_opened();
std::atomic<iconv_t> utf8_descriptor = not_opened();

// The platform's name of the locale's codeset. Where that is ASCII, as in the plain locale, it
// is the codeset that has a character for every byte instead.
const char* codeset_name() {
  std::string_view name = nl_langinfo(CODESET);
  if (name == "646" || name == "ANSI_X3.4-1968") return "ISO8859-1";
  return name.data();
}

// Whether `descriptor`, new and so nobody else's yet, makes every character of ASCII itself.
bool keeps_ascii(iconv_t descriptor) {
  char ascii[0x7F];
  char made[sizeof ascii] = {};
  std::iota(std::begin(ascii), std::end(ascii), '\1');
  char* in = ascii;
  char* out = made;
  size_t in_left = sizeof ascii;
  size_t out_left = sizeof made;
  iconv(descriptor, &in, &in_left, &out, &out_left);
  iconv(descriptor, nullptr, nullptr, nullptr, nullptr);
  return memcmp(ascii, made, sizeof ascii) == 0;
}

// Fills `slot`. Of racing threads the first one's descriptor stays.
iconv_t open_once(std::atomic<iconv_t>* slot, const char* to, const char* from,
                  std::string_view complaint) {
  learn_codeset();
  iconv_t opened = Needs_conversion != 0 ? iconv_open(to, from) : nullptr;
  if (opened == not_opened()) {
    // No stream can print text now.
    [[maybe_unused]] ssize_t written = write(STDERR_FILENO, complaint.data(), complaint.size());
    exit(1);
  }
  if (slot == &ansi_descriptor && opened != nullptr) Ansi_keeps_ascii = keeps_ascii(opened);
  iconv_t there = not_opened();
  if (slot->compare_exchange_strong(there, opened)) return opened;
  if (opened != nullptr) iconv_close(opened);
  return there;
}

}  // namespace

void learn_codeset() {
  if (codeset_name() == "UTF-8"sv) Needs_conversion = 0;
}

iconv_t get_ansi_codeset() {
  iconv_t descriptor = ansi_descriptor.load(std::memory_order_acquire);
  if (descriptor != not_opened()) return descriptor;
  return open_once(&ansi_descriptor, codeset_name(), "UTF-8", kNoAnsi);
}

iconv_t get_utf8_codeset() {
  iconv_t descriptor = utf8_descriptor.load(std::memory_order_acquire);
  if (descriptor != not_opened()) return descriptor;
  return open_once(&utf8_descriptor, "UTF-8", codeset_name(), kNoUtf8);
}

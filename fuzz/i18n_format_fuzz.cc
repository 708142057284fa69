// The formatter on arbitrary formats. Before the first NUL of the input stands the text of
// every argument, behind it the format. Each argument is the address of that text: a valid
// "%s", any number for everything else, and low, so that as a width it is some ten thousands.
#undef NDEBUG
#include <sys/mman.h>

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "liblocal/text/i18n_printf.h"
#include "tests/word_arguments.h"

extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1:max_allocation_size_mb=32";
}

constexpr size_t kTextSize = 4096;
constexpr size_t kLongestFormat = 600;  // may name more than 255 arguments

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t end = input.find('\0');
  const std::string format(&input[end + 1]);
  // NULs for a wide string, too.
  if (end >= kTextSize - 16 || format.size() > kLongestFormat) return 0;
  static auto* const text =
      static_cast<char*>(mmap(reinterpret_cast<void*>(0x10000), kTextSize, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0));
  assert(text != MAP_FAILED);
  strncpy(text, input.c_str(), kTextSize);  // and NULs to its end
  const std::vector<uint64_t> words(2 * (255 + 2 * kLongestFormat),
                                    reinterpret_cast<uint64_t>(text));
  va_list arguments;
  start_word_arguments(arguments, words.data());
  const std::string whole = in_own_area(format, arguments);
  // A width without bound may have been refused there; a "%m" tells errno, which changes.
  static const std::regex kWithout("[0-9]{5}|m");
  if (whole.size() > 1 << 20 || std::regex_search(format, kWithout)) return 0;
  // The same in a buffer that is just long enough, and by way of the table of positions.
  std::vector<char> buffer(whole.size() + 1);
  assert(i18n_vsprintf(buffer.data(), nullptr, format.c_str(), arguments) ==
         static_cast<int>(whole.size()));
  assert(memcmp(buffer.data(), whole.c_str(), buffer.size()) == 0);
  if (std::count(format.begin(), format.end(), '%') * 3 <= 255 &&
      std::count(format.begin(), format.end(), '*') <= 100) {
    assert(in_own_area("$" + format, arguments) == "$" + whole);
  }
  return 0;
}

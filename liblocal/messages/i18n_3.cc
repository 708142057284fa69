#include "liblocal/messages/i18n_3.h"

#include <atomic>
#include <cstdio>

namespace {

char joined[kJoinedTexts][kJoinedSize];
std::atomic<int> last;  // slot of the last text

int next_slot() {
  int before = last;
  int next;
  do {
    next = (before + 1) % kJoinedTexts;
  } while (!last.compare_exchange_weak(before, next));
  return next;
}

const char* or_empty(const char* text) { return text != nullptr ? text : ""; }

}  // namespace

const char* i18n_3(const char* first, const char* second, const char* third) {
  char* text = joined[next_slot()];
  snprintf(text, kJoinedSize, "%s%s%s", or_empty(first), or_empty(second), or_empty(third));
  return text;
}

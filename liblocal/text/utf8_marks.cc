#include "liblocal/text/utf8_marks.h"

#include <algorithm>
#include <atomic>

#include "liblocal/base/vx_mutex.h"

namespace {

constexpr int kMostMarks = 10;

// Changed under the lock, read without it. A reader searches from the last mark to the first,
// and a removal moves the later marks one place forward. So a reader that misses a moved mark
// in its old place finds it in the new one.
std::atomic<int> marks[kMostMarks];
std::atomic<int> mark_count;
std::atomic<vx_mutex*> list_mutex;

vx_mutex* list_lock() { return vx_mutex_required(&list_mutex); }

int descriptor_of(FILE* stream) { return stream != nullptr ? fileno(stream) : -1; }

// The place of the mark of `descriptor`; -1 when there is none.
int place_of(int descriptor) {
  int place = mark_count - 1;
  while (place >= 0 && marks[place] != descriptor) --place;
  return place;
}

}  // namespace

void utf8_fd(int descriptor) {
  if (descriptor < 0) return;
  vx_mutex* mutex = list_lock();
  if (mutex == nullptr) return;
  VxMutexLock lock(mutex);
  if (place_of(descriptor) >= 0 || mark_count == kMostMarks) return;
  marks[mark_count] = descriptor;
  ++mark_count;
}

void user_fd(int descriptor) {
  if (!utf8_is_marked(descriptor)) return;
  VxMutexLock lock(list_lock());
  int place = place_of(descriptor);
  if (place < 0) return;
  for (; place + 1 < mark_count; ++place) marks[place] = marks[place + 1].load();
  --mark_count;
}

void utf8_fp(FILE* stream) { utf8_fd(descriptor_of(stream)); }

void user_fp(FILE* stream) { user_fd(descriptor_of(stream)); }

bool utf8_is_marked(int descriptor) { return place_of(descriptor) >= 0; }

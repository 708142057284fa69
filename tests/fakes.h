// Fakes of what the platform answers: allocations, system calls of connections, the clock, the
// resolver, the interfaces, the codeset, and numbers in front of catalog texts. Every
// test program has these calls of its own objects and static libraries pass through here;
// shared libraries keep theirs. Each fake calls the real thing until a test sets it.
#pragma once

#include <sys/socket.h>
#include <sys/time.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <vector>

namespace fakes {

/// While it lives, the next `granted` of malloc, calloc, realloc and strdup succeed and the
/// `refusals` after them fail with ENOMEM. One at a time.
class FailingMalloc {
 public:
  explicit FailingMalloc(int granted, int refusals = INT_MAX);
  ~FailingMalloc();
  FailingMalloc(const FailingMalloc&) = delete;
  /// Whether an allocation was refused.
  bool failed() const;
};

/// Calls `work(const FailingMalloc&)` with one allocation after the other refused, then none.
inline void refuse_each_allocation(auto work) {
  bool refused = true;
  for (int granted = 0; refused; ++granted) {
    const FailingMalloc failing(granted, 1);
    work(failing);
    refused = failing.failed();
  }
}

/// The pieces of memory that were allocated and not freed.
long pieces_held();

/// Runs `work` twice and returns how many more pieces are held after the second run than
/// before it. What only the first run allocates, and is kept for good, does not count.
inline long pieces_left_by(auto work) {
  work();
  const long before = pieces_held();
  work();
  return pieces_held() - before;
}

/// The system calls of one kind that are to fail.
struct Refusal {
  std::atomic<int> left;   // so many of the next calls fail
  std::atomic<int> error;  // with this errno
};

/// connect (after EINTR it goes on, as the platform's), readv and recv, sendmsg, ppoll and select.
inline Refusal connects, reads, writes, waits;

/// Makes the next `count` calls fail with `error`. A wait with 0 finds nothing, at once.
inline void refuse(Refusal& calls, int error, int count = 1) {
  calls.error = error;
  calls.left = count;
}

inline std::atomic<int64_t> now;            // what time() answers; 0: the real time
inline std::vector<int64_t>* sleeps;        // takes the milliseconds of nanosleep; null: it sleeps
inline std::atomic<int> names_asked;        // calls of gethostbyname_r until now
inline std::atomic<bool> resolver_is_down;  // gethostbyname_r finds nothing
inline std::atomic<const char*> codeset;    // what nl_langinfo(CODESET) answers; null: the real

/// A network interface that ioctl shows.
struct Interface {
  int flags;  // or -errno: asking for them fails
  const char* address;
  sa_family_t family = AF_INET;
};

/// The interfaces of this host; null: the real ones.
inline std::atomic<const std::vector<Interface>*> interfaces;
inline std::atomic<int> listing_error;  // errno of asking for them; 0: none

/// While one lives, or a program has NUMBERED_TEXTS in its environment, each text of the
/// catalog, but for those of the runtime's set 17, begins with the numbers of its set and of
/// itself: "[41.23] unknown host". Only for a program whose texts are few: they are kept.
struct NumberedTexts {
  NumberedTexts();
  ~NumberedTexts();
};

}  // namespace fakes
